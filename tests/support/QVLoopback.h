#pragma once

#include <string>

namespace qv::test {

// Sockets on 127.0.0.1 for tests that play the far end of a connection.
// Every wait on them is bounded, so a test that goes wrong still ends.

// A socket bound to 127.0.0.1 at a free port, listening unless listen is
// false (bound only, it refuses connections). A receive buffer size, when
// given, is set before listening, so accepted connections start with it.
// Throws when the system refuses.
int bindLoopback(int& port, bool listen = true, int receiveBufferBytes = 0);
// A connection to 127.0.0.1:port, or -1.
int connectLoopback(int port);
bool sendAll(int fd, const std::string& bytes);
// Reads until the text holds part, the peer ends, or 10 s pass without data.
std::string receiveUntil(int fd, const std::string& part);
// A request written byte for byte on a connection of its own, and all that
// came back until the server closed it.
std::string exchange(int port, const std::string& bytes);

}  // namespace qv::test
