// Archive tests against a database server that is full, or that says nothing.
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <new>
#include <vector>

#include "support/mariadb_server.h"
#include "tool/tool_fixture.h"

using testsupport::MariaDbServer;
using testsupport::Outcome;
using testsupport::write_file;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int kRuns = 200;  // each takes ten times as long
#else
constexpr int kRuns = 1000;
#endif
constexpr int kAtOnce = 16;
constexpr size_t kConnections = 5;
constexpr const char* kSocket = "/var/lib/mysql/mysql.sock";

struct CloseConnection {
  void operator()(MYSQL* handle) const { mysql_close(handle); }
};
using Connection = std::unique_ptr<MYSQL, CloseConnection>;

class TestIntegrityLoad : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    write_file("/etc/oxa/.oxa.shadow", "sesame\n", 0600);
    shell("mkdir httpdocs; echo text > httpdocs/index.html; tar -cf a.tar httpdocs");
  }

  Outcome test() const {
    return tembrix({"--test-archive", "--force-type", "tar", "--filename", at("a.tar")});
  }
};

/// What the program says where no connection can be had.
Outcome no_connection(const std::string& reason, const std::string& system_error = "") {
  const std::string pending = system_error.empty() ? "" : "System error " + system_error + "\n";
  const std::string report = "tembrix: Unable to connect to Frask Database: " + reason + "\n" +
                             pending + "tembrix: Unable to connect to the mysql database\n" +
                             (pending.empty() ? "" : "\n" + pending);
  return {report, report, 1 << 8};
}

/// As "admin", the user of the tool; null where the server refuses.
Connection connect() {
  Connection connection(mysql_init(nullptr));
  const bool connected = mysql_real_connect(connection.get(), "localhost", "admin", "sesame", "oxa",
                                            0, kSocket, 0) != nullptr;
  return connected ? std::move(connection) : nullptr;
}

std::vector<Connection> all_connections() {
  std::vector<Connection> connections;
  while (Connection connection = connect()) connections.push_back(std::move(connection));
  return connections;
}

/// How the runs ended, counted by several processes.
struct Tally {
  std::atomic<int> answered{0};
  std::atomic<int> refused{0};
  std::atomic<int> other{0};
};

/// A socket at the server's place, on which nobody answers.
class SilentServer {
 public:
  explicit SilentServer(int backlog) : socket_(make_socket()) {
    const sockaddr_un address = socket_address();
    listening_ = bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                 listen(socket_, backlog) == 0;
  }
  ~SilentServer() {
    close(socket_);
    for (const int waiting : waiting_) close(waiting);
  }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  bool listening() const { return listening_; }

  /// Fills the queue of those whom the server has not taken yet.
  void fill_queue() {
    const sockaddr_un address = socket_address();
    int result = 0;
    while (result == 0) {
      waiting_.push_back(make_socket());
      result =
          ::connect(waiting_.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
  }

 private:
  static int make_socket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  }
  static sockaddr_un socket_address() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocket);
    return address;
  }

  int socket_;
  bool listening_ = false;
  std::vector<int> waiting_;
};

}  // namespace

TEST_F(TestIntegrityLoad, AnswersOrSaysThatTheServerIsFull) {
  // The server allows ten connections or more; all but five of those it has are held.
  MariaDbServer server({"sesame", kSocket, true, {"--max-connections=10"}});
  std::vector<Connection> held = all_connections();
  ASSERT_GT(held.size(), kConnections);
  const Outcome refusal = no_connection("Too many connections");
  EXPECT_EQ(test(), refusal);
  held.resize(held.size() - kConnections);

  void* shared =
      mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  Tally& tally = *new (shared) Tally;
  std::vector<pid_t> workers;
  for (int worker = 0; worker < kAtOnce; ++worker) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    workers.push_back(pid);
    if (pid != 0) continue;
    for (int run = worker; run < kRuns; run += kAtOnce) {
      const Outcome outcome = test();
      ++(outcome == answer(0) ? tally.answered : outcome == refusal ? tally.refused : tally.other);
      if (!(outcome == answer(0)) && !(outcome == refusal)) std::cerr << outcome;
    }
    _exit(0);
  }
  for (const pid_t pid : workers) EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
  EXPECT_EQ(tally.answered + tally.refused, kRuns);
  EXPECT_EQ(tally.other, 0);
  EXPECT_GE(tally.answered, 5);
  std::cout << tally.answered << " answered, " << tally.refused << " refused\n";
  EXPECT_TRUE(server.comes_down_to(held.size()));
  EXPECT_EQ(test(), answer(0)) << "no connection is left behind";
}

TEST_F(TestIntegrityLoad, GivesUpOnAServerThatTakesTheConnectionAndSaysNothing) {
  const SilentServer server(5);
  ASSERT_TRUE(server.listening());
  EXPECT_EQ(test(), no_connection("Lost connection to server at 'handshake: reading initial "
                                  "communication packet', system error: 110",
                                  "110: Connection timed out"));
}

TEST_F(TestIntegrityLoad, GivesUpOnAServerThatTakesNoConnection) {
  SilentServer server(0);
  ASSERT_TRUE(server.listening());
  server.fill_queue();
  EXPECT_EQ(test(), no_connection("Can't connect to local server through socket '" +
                                  std::string(kSocket) + "' (11)"));
}
