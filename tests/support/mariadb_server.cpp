#include "support/mariadb_server.h"

#include <errno.h>
#include <linux/close_range.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "support/scratch.h"

namespace fs = std::filesystem;

namespace testsupport {
namespace {

constexpr const char* kPrivateMariadb = TEMBRIX_SCRIPTS "/private-mariadb";
constexpr auto kPatience = std::chrono::seconds(60);
constexpr auto kPause = std::chrono::milliseconds(5);

/// Becomes the program, which the end of this process's parent ends too, and which gets no
/// descriptor of the test beside the standard ones.
[[noreturn]] void become(const std::vector<std::string>& words, pid_t parent) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  if (getppid() == parent) execv(argv[0], argv.data());
  _exit(98);
}

fs::path make_directory(const std::string& socket) {
  std::string name = (fs::path(socket).parent_path() / "server-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + name);
  return name;
}

}  // namespace

MariaDbServer::MariaDbServer(const MariaDbOptions& options)
    : socket_(options.socket), directory_(make_directory(options.socket)) {
  try {
    start(options);
    wait_until_ready();
    if (!options.with_misc) execute("drop table misc");
  } catch (...) {
    end(SIGKILL);
    throw;
  }
}

MariaDbServer::~MariaDbServer() {
  end(SIGKILL);
  std::error_code ignored;
  fs::remove_all(directory_, ignored);
}

void MariaDbServer::execute(const std::string& sql) {
  ask(sql);
}

std::string MariaDbServer::ask(const std::string& sql) {
  if (mysql_query(control_, sql.c_str()) != 0)
    throw std::runtime_error(sql + ": " + mysql_error(control_));
  MYSQL_RES* result = mysql_store_result(control_);
  if (result == nullptr) return "";
  MYSQL_ROW row = mysql_fetch_row(result);
  std::string field = row != nullptr && row[0] != nullptr ? row[0] : "";
  mysql_free_result(result);
  return field;
}

bool MariaDbServer::comes_down_to(size_t connections) {
  const auto give_up = std::chrono::steady_clock::now() + kPatience;
  // The list of processes is shorter before there is a place for another.
  while (std::stoul(ask("select variable_value from information_schema.global_status where "
                        "variable_name = 'threads_connected'")) > connections + 1) {
    if (std::chrono::steady_clock::now() > give_up) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

void MariaDbServer::stop() {
  end(SIGTERM);
}

std::string MariaDbServer::log() const {
  const fs::path path = directory_ / "data" / "server.log";
  return fs::exists(path) ? read_file(path) : "";
}

void MariaDbServer::start(const MariaDbOptions& options) {
  const std::string password_file = directory_ / "password";
  write_file(password_file, options.password + "\n", 0600);
  std::vector<std::string> words = {
      kPrivateMariadb, "run",        directory_ / "data",      "--socket",
      socket_,         "--template", TEMBRIX_MARIADB_TEMPLATE, "--password-file",
      password_file,   "--"};
  words.insert(words.end(), options.server_options.begin(), options.server_options.end());
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) become(words, parent);
}

void MariaDbServer::wait_until_ready() {
  const auto give_up = std::chrono::steady_clock::now() + kPatience;
  while (!connect()) {
    const bool ended = waitpid(pid_, nullptr, WNOHANG) != 0;
    if (ended) pid_ = -1;
    if (ended || std::chrono::steady_clock::now() > give_up)
      throw std::runtime_error("no MariaDB server: " + log());
    std::this_thread::sleep_for(kPause);
  }
}

/// The server takes connections only after it has made the panel's tables.
bool MariaDbServer::connect() {
  control_ = mysql_init(nullptr);
  if (control_ == nullptr) throw std::runtime_error("mysql_init failed");
  if (mysql_real_connect(control_, "localhost", "root", "", "oxa", 0, socket_.c_str(), 0) !=
      nullptr)
    return true;
  mysql_close(control_);
  control_ = nullptr;
  return false;
}

void MariaDbServer::end(int signal) {
  if (control_ != nullptr) mysql_close(control_);
  control_ = nullptr;
  if (pid_ <= 0) return;
  kill(pid_, signal);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

}  // namespace testsupport
