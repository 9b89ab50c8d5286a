/// Runs the built programs as their users do, and compares what they say with transcripts.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/ChildProcess.h"
#include "tests/support/support.h"

/// How a program ended.
struct Outcome {
  std::string output;  ///< standard output; through a terminal, what the terminal got
  std::string errors;  ///< standard error; empty through a terminal
  int status = -1;     ///< exit status; -1 where a signal ended it
  int signal = 0;      ///< that ended it; 0 where none did
};

enum class Through { PIPE, TERMINAL };

/// Runs `words[0]` with the other words to its end, 60 seconds at most. JSON that one of our
/// programs printed or wrote, because its words ask for that, is validated by its schema in
/// docs/json/ when the test ends.
Outcome RunProgram(const std::vector<std::string>& words, Through through = Through::PIPE);

/// A child process, ended by the destructor where it still runs.
class Child {
 public:
  /// Starts `words[0]`; its standard output comes through a pipe, its standard error goes to
  /// `errors_file`. A job is what a shell makes of a command line: a process group of its own,
  /// which Ctrl-Z can stop.
  Child(const std::vector<std::string>& words, const std::string& errors_file, bool is_job = false);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// The next line of its output; "" at the end, and when none comes within 20 seconds.
  std::string ReadLine();
  void Signal(int number) const { _process->Signal(number); }
  /// Waits for its end and returns its exit status, or minus the signal.
  int Wait();
  pid_t Pid() const { return _process->Pid(); }

 private:
  std::unique_ptr<common::ChildProcess> _process;
  common::Descriptor _output;
};

/// A simulator in its own process, over a fabric file; ended cleanly by Stop or the destructor.
class Simulator {
 public:
  /// `fabric` is the text of the fabric file. State and trace live in `folder`.
  Simulator(const common::ScratchFolder& folder, const std::string& fabric);
  ~Simulator();

  const std::string& Server() const { return _server; }
  /// Ends it and expects that it ends well.
  void Stop();
  /// Every request and answer so far: "> request" and "< answer" lines.
  std::string Trace() const;
  /// A chip's memory, by its state file's name, such as "0x0000000000000010.50.i2c".
  DataVec Memory(const std::string& file) const;
  pid_t Pid() const { return _child->Pid(); }

 private:
  std::string _state;
  std::string _trace;
  std::unique_ptr<Child> _child;
  std::string _server;
};

/// The built fwpush.
std::string FwpushProgram();
/// The built fwpush-sim.
std::string SimProgram();
/// The built fwpush-rehearse.
std::string RehearseProgram();

/// The text that the transcript tests/golden/`name` stands for, its places in braces replaced: see
/// tests/golden/README.md.
std::string Golden(const std::string& name, const std::map<std::string, std::string>& places = {});

/// Console output as transcripts have it: line numbers of debug lines that are free to move
/// replaced.
std::string Comparable(const std::string& console);
