// A real MariaDB server for one test.
#ifndef TESTS_SUPPORT_MARIADB_SERVER_H
#define TESTS_SUPPORT_MARIADB_SERVER_H

#include <mysql.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {

struct MariaDbOptions {
  std::string password = "sesame";                   ///< of "admin"
  std::string socket = "/var/lib/mysql/mysql.sock";  ///< the data lies beside it
  bool with_misc = true;                             ///< whether table "misc" exists
  std::vector<std::string> server_options = {};      ///< on top, e.g. "--init-connect=..."
};

/// A server on a Unix socket (on no other unless its options say so) that holds the panel's
/// database: "oxa" with the tables "misc" (param, val) and "ServiceNodeConfiguration"
/// (serviceNodeId, section, name, value), both empty, and the user "admin" with all rights in it.
/// Call enter_private_mounts() first, since the default socket is the panel's own. The server ends
/// with this object, and with this process however that ends.
class MariaDbServer {
 public:
  /// Returns once the server answers; throws std::runtime_error with its log when it does not.
  explicit MariaDbServer(const MariaDbOptions& options = {});
  ~MariaDbServer();
  MariaDbServer(const MariaDbServer&) = delete;
  MariaDbServer& operator=(const MariaDbServer&) = delete;

  /// Runs one statement in "oxa" as the server's own root; throws std::runtime_error when it fails.
  void execute(const std::string& sql);
  /// The first field of the first row that a statement gives; "" where there is none.
  std::string ask(const std::string& sql);
  /// Whether it has no more connections than these, this object's own not counted. It takes notice
  /// of a closed one in its own time, for which this waits up to a minute.
  bool comes_down_to(size_t connections);
  /// Shuts the server down as its administrator would: the socket is gone afterwards.
  void stop();

  const std::string& socket() const { return socket_; }
  std::string log() const;

 private:
  void start(const MariaDbOptions& options);
  void wait_until_ready();
  bool connect();
  void end(int signal);

  std::string socket_;
  std::filesystem::path directory_;
  pid_t pid_ = -1;
  MYSQL* control_ = nullptr;
};

}  // namespace testsupport

#endif
