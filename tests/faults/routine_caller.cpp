// Calls one routine between two marks, for a tracer that makes its system calls fail:
//   routine_caller ROUTINE      "returned ...", "threw ..." and "leaked N" on standard output
#include <fcntl.h>
#include <mysql.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <typeinfo>

#include "conf/database.h"
#include "conf/inifile.h"
#include "conf/oxaconf.h"
#include "error/SystemError.h"
#include "exec/forkexec.h"
#include "exec/texec.h"
#include "fs/tree.h"
#include "log/c_string.private.h"
#include "support/call_faults.h"
#include "support/child.h"
#include "text/idn.h"
#include "tool/skeleton_store.h"
#include "vhost/FileList.h"
#include "vhost/entry_points.h"
#include "vhost/misc.h"

namespace {

using frask::CString;
namespace sys = frask::sys;

constexpr const char* kTree = "/mnt/site/tree";
constexpr const char* kHost = "/var/www/vhosts/example.com";
const DocrootCleanOptions kOptions = {"/var/www/vhosts/example.com/httpdocs", 0, 0, 0,
                                      "/var/www/vhosts/example.com/cgi-bin"};

std::string number(int value) {
  return std::to_string(value);
}

std::string text(const char* value) {
  return value != nullptr ? value : "NULL";
}

char* const* words(std::initializer_list<const char*> given) {
  static char* argv[8];
  size_t count = 0;
  for (const char* word : given) argv[count++] = const_cast<char*>(word);
  argv[count] = nullptr;
  return argv;
}

sys::TExec command(std::initializer_list<const char*> given) {
  sys::TEArgs args;
  for (const char* word : given) args.push_back(word);
  return sys::TExec(args);
}

std::string process(const sys::TSLProcess& started) {
  return number(started.result);
}

/// The result and what was captured.
std::string captured(int result, char* out) {
  const CString owner(out);
  return number(result) + " " + text(out);
}

std::string captured_both() {
  char* out = nullptr;
  char* err = nullptr;
  const int result =
      fork_execv_getouterr(&out, &err, "/bin/sh", words({"sh", "-c", "echo a; echo b >&2"}));
  const CString owner(err);
  return captured(result, out) + text(err);
}

std::string captured_line(const sys::TExecsList& line) {
  std::string out;
  int status = 0;
  sys::execGetOutput(&out, &status, line);
  return number(status) + " " + out;
}

std::string wired() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int pid = fork_execl_pipes(null, 1, 2, "/bin/cat", "cat", nullptr);
  if (null >= 0) close(null);
  return number(fork_exec_getres(pid, "cat"));
}

std::string passed_on() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int result = fork_execv_fd(null, -1, "/bin/sh", words({"sh", "-c", "echo error >&2"}));
  if (null >= 0) close(null);
  return number(result);
}

std::string with_output() {
  char* out = nullptr;
  const int result = popen_exec_getoutput(&out, "echo text");
  return captured(result, out);
}

std::string configured() {
  return text(oxaConfGetDefaultByIndex(OXA_CONF_HTTPD_VHOSTS_D));
}

std::string table() {
  auto* conf = static_cast<ConfR*>(calloc(1, sizeof(ConfR)));
  const int result = conf_read_file_r("/etc/oxa/oxa.conf", conf);
  const std::string found = text(result == 0 ? conf_get_r("HTTPD_VHOSTS_D", conf) : nullptr);
  conf_free_r(conf);
  return number(result) + " " + found;
}

std::string queried() {
  MYSQL* connection = db_connect();
  if (connection == nullptr) return "no connection";
  const std::string value = text(get_param("size_count_type", connection));
  mysql_close(connection);
  return value;
}

std::string listed() {
  std::vector<std::filesystem::path> entries;
  const int result = frask::readDirContent(&entries, kTree, 0);
  return number(result) + " " + number(static_cast<int>(entries.size()));
}

using Routine = std::function<std::string()>;

const std::map<std::string, Routine>& routines() {
  static const std::map<std::string, Routine> all{
      {"fork_execl_pipes", wired},
      {"fork_execl_getout",
       [] {
         char* out = nullptr;
         const int result = fork_execl_getout(&out, "/bin/echo", "echo", "text", nullptr);
         return captured(result, out);
       }},
      {"fork_execv_getouterr", captured_both},
      {"fork_execl_log",
       [] { return number(fork_execl_log("/bin/sh", "sh", "-c", "echo a >&2; exit 3", nullptr)); }},
      {"path_exec", [] { return number(path_exec("/bin/true", nullptr)); }},
      {"util_exec", [] { return number(util_exec("utility", nullptr)); }},
      {"util_libexec", [] { return number(util_libexec("missing", nullptr)); }},
      {"fork_execv", [] { return number(fork_execv("/bin/true", nullptr)); }},
      {"fork_execv_fd", passed_on},
      {"do_exec", [] { return number(do_exec("/bin/true", words({"true"}))); }},
      {"popen_exec_with_input",
       [] { return number(popen_exec_with_input("cat >/dev/null", "text")); }},
      {"popen_exec_getoutput", with_output},
      {"popen_exec", [] { return number(popen_exec("exit 3")); }},
      {"closefrom_through_proc", [] { return number(closefrom_through_proc(100)); }},

      {"execute", [] { return process((command({"true"}) | sys::wait_mode).execute()); }},
      {"redirect",
       [] {
         sys::TExec both = (command({"cat"}) < "/mnt/site/tree/file") > "/mnt/site/copy";
         return process((both | sys::wait_mode).execute());
       }},
      {"feed", [] { return captured_line(command({"cat"}) << "text"); }},
      {"execGetOutput",
       [] {
         return captured_line(command({"echo", "text"}));
       }},
      {"pipeline",
       [] {
         return captured_line((command({"echo", "text"}) | command({"cat"})) | command({"cat"}));
       }},
      {"throwing",
       [] {
         std::string out;
         return out <<= command({"false"});
       }},

      {"oxaConfGetDefaultByIndex", configured},
      {"conf_read_file_r", table},
      {"get_ini_conf_var",
       [] {
         const CString value(get_ini_conf_var("/etc/oxa/private/dsn.ini", "frask", "username"));
         return text(value.get());
       }},
      {"get_param", queried},
      {"get_mail_server_param", [] { return text(get_mail_server_param("name", nullptr)); }},

      {"chown_tree",
       [] {
         chown_tree(kTree, 7, 8, 1);
         return std::string();
       }},
      {"chmod_tree",
       [] {
         chmod_tree(kTree, 0640, 0750, 1);
         return std::string();
       }},
      {"rm_tree_aux", [] { return number(rm_tree_aux(kTree, 1, 0)); }},
      {"rm_tree",
       [] {
         rm_tree(kTree, 1);
         return std::string();
       }},
      {"remove_forbid_entries",
       [] {
         remove_forbid_entries(kTree);
         return std::string();
       }},

      {"setup_skeleton", [] { return number(setup_skeleton(kHost, 0, "9", &kOptions)); }},
      {"setup_skeleton_on_subdomain",
       [] { return number(setup_skeleton_on_subdomain("example.com", "shop", "9", &kOptions)); }},
      {"clean_docroot", [] { return number(clean_docroot(kHost, &kOptions)); }},
      {"wido_delete_instance",
       [] {
         wido_delete_instance(kHost, &kOptions, "blog");
         return std::string();
       }},
      {"copy_if_no_dontedit",
       [] {
         copy_if_no_dontedit("/mnt/site/tree/file");
         return std::string();
       }},
      {"readDirContent", listed},
      {"typeFromPath", [] { return frask::typeFromPath("/mnt/site/tree/file"); }},
      {"readFile", [] { return frask::readFile("/mnt/site/tree/file"); }},
      {"getCtID", frask::getCtID},
      {"idn_toascii_safe",
       [] {
         const CString name(idn_toascii_safe("b\303\274cher.example"));
         return text(name.get());
       }},
  };
  return all;
}

std::string result_of(const Routine& routine) {
  const pid_t caller = getpid();
  std::string result;
  try {
    return "returned " + routine();
  } catch (const std::exception& failure) {
    result = std::string("threw ") + typeid(failure).name() + ": " + failure.what();
  }
  if (getpid() == caller) return result;
  // A child in which the start of a program has failed: the caller's code goes on in it.
  std::cerr << result << std::endl;
  _exit(255);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || routines().count(argv[1]) == 0) {
    for (const auto& [name, routine] : routines()) puts(name.c_str());
    return 2;
  }
  const Routine& routine = routines().at(argv[1]);
  close_range(STDERR_FILENO + 1, ~0U, 0);  // what the caller has left open
  const size_t before = testsupport::open_descriptors().size();
  fcntl(0, F_GETFD);
  const std::string result = result_of(routine);
  fcntl(testsupport::kEndMark, F_GETFD);
  const size_t after = testsupport::open_descriptors().size();
  printf("%s\nleaked %ld\n", result.c_str(), static_cast<long>(after) - static_cast<long>(before));
  return 0;
}
