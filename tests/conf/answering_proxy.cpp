#include "answering_proxy.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace {

sockaddr_un address_of(const std::string& socket_path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_path.c_str());
  return address;
}

/// Reads what is there; "" at the end of the stream.
std::string receive(int fd) {
  char buffer[65536];
  const ssize_t n = read(fd, buffer, sizeof buffer);
  return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
}

void send_on(int fd, const std::string& bytes) {
  if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) _exit(1);
}

/// A packet is the length of its payload in three bytes, its number in the exchange, the payload.
std::string packets(const std::vector<std::string>& payloads) {
  std::string bytes;
  char number = 1;
  for (const std::string& payload : payloads) {
    const size_t size = payload.size();
    for (const unsigned int shift : {0U, 8U, 16U})
      bytes += static_cast<char>(size >> shift & 0xffU);
    bytes += number++;
    bytes += payload;
  }
  return bytes;
}

[[noreturn]] void serve(int listener, int server, const std::string& query,
                        const std::vector<std::string>& answer) {
  const int client = accept(listener, nullptr, nullptr);
  if (client < 0) _exit(1);
  pollfd ends[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
  while (poll(ends, 2, -1) > 0) {
    if (ends[1].revents != 0) send_on(client, receive(server));
    if (ends[0].revents == 0) continue;
    const std::string request = receive(client);
    if (request.empty()) break;
    const bool answered = request.find(query) != std::string::npos;
    send_on(answered ? client : server, answered ? packets(answer) : request);
  }
  _exit(0);
}

}  // namespace

AnsweringProxy::AnsweringProxy(const std::string& socket, const std::string& server_socket,
                               const std::string& query, const std::vector<std::string>& answer) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un own = address_of(socket);
  const sockaddr_un behind = address_of(server_socket);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
      listen(listener, 1) != 0 ||
      connect(server, reinterpret_cast<const sockaddr*>(&behind), sizeof behind) != 0)
    throw std::runtime_error("no proxy at " + socket);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    serve(listener, server, query, answer);
  }
  close(listener);
  close(server);
}

AnsweringProxy::~AnsweringProxy() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}
