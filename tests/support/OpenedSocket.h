/// The burner's sockets, opened for a look inside.
#pragma once

#include <arpa/inet.h>

#include <chrono>
#include <string>

/// A Socket or ClientSocket that a test can look into, give a descriptor, and change the limits of.
template <typename Base>
class Opened : public Base {
 public:
  void Adopt(int fd) {
    this->Close();
    this->_sock = fd;
  }
  int Fd() const { return this->_sock; }
  const std::string& Host() const { return this->_host; }
  int Port() const { return this->_port; }
  int PeerPort() const { return ntohs(this->_addr.sin_port); }
  void SetMaxSilence(std::chrono::milliseconds limit) { this->_max_silence = limit; }
  void SetMaxBuffer(std::size_t size) { this->_max_buffer = size; }
};
