// Stands between a client and a MariaDB server, and answers one query in the server's place.
#ifndef TESTS_CONF_ANSWERING_PROXY_H
#define TESTS_CONF_ANSWERING_PROXY_H

#include <sys/types.h>

#include <string>
#include <vector>

/// A process that takes one connection at a socket and hands everything on to the server, but for
/// the packet that holds `query`: that one gets `answer`, payloads of the protocol, instead.
class AnsweringProxy {
 public:
  AnsweringProxy(const std::string& socket, const std::string& server_socket,
                 const std::string& query, const std::vector<std::string>& answer);
  ~AnsweringProxy();
  AnsweringProxy(const AnsweringProxy&) = delete;
  AnsweringProxy& operator=(const AnsweringProxy&) = delete;

 private:
  pid_t pid_;
};

#endif
