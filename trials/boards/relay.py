"""A relay between fwpush and a board, which counts what fwpush sends, and does something at a chosen byte:
so a burn is interrupted at a place of it, however fast the machine is."""

import socket
import threading
import time


class Relay:
    """Takes one connection and passes it on to a port of the loopback. `action` is called once, a pause
    after byte number `limit` was passed on; never without a limit."""

    def __init__(self, port, limit=None, pause=0.0, action=None):
        self._target, self._limit, self._pause, self._action = port, limit, pause, action
        self.sent = 0  # bytes of fwpush
        self.is_done = False  # whether the action went through, before fwpush hung up
        self._error = None  # of the action
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(60)
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._serve, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._listener.close()
        self._thread.join(60)
        if self._error is not None:
            raise self._error
        if self._thread.is_alive():
            raise RuntimeError("a relay does not end")

    def _serve(self):
        try:
            client, _ = self._listener.accept()
            with client, socket.create_connection(("127.0.0.1", self._target), 60) as server:
                for end in (client, server):
                    end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                    end.settimeout(120)
                back = threading.Thread(target=self._pass_back, args=(server, client), daemon=True)
                back.start()
                self._pass_on(client, server)
                back.join(60)
        except OSError:
            pass  # one end is gone, which tells the other

    def _pass_on(self, client, server):
        try:
            while data := client.recv(65536):
                server.sendall(data)
                self.sent += len(data)
                if self._limit is not None and self.sent >= self._limit and not self.is_done:
                    time.sleep(self._pause)
                    self._act()
        except OSError:
            pass
        self._hang_up(client, server)

    def _act(self):
        self._limit = None
        try:
            self._action()
            self.is_done = True
        except Exception as error:  # pylint: disable=broad-except
            self._error = error  # for the thread that waits

    def _pass_back(self, server, client):
        try:
            while data := server.recv(65536):
                client.sendall(data)
        except OSError:
            pass
        self._hang_up(client, server)

    @staticmethod
    def _hang_up(*ends):
        for end in ends:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
