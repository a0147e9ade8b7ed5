// What is run with system calls that fail: every mode of the program, and the library's routines.
#ifndef TESTS_FAULTS_ROADS_H
#define TESTS_FAULTS_ROADS_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/mariadb_server.h"

namespace faults {

using Lines = std::vector<std::string>;

/// What a run without the fault has to come to, that begins with what the fault has left.
struct Again {
  std::string complaint;  ///< of what was left; "" where a fault may leave it
  Lines state;
  Lines reports;  ///< in any order
};

struct Road {
  std::string name;
  std::vector<std::string> words;  ///< the program and its arguments
  std::string input = {};
  std::string directory = {};             ///< the working directory; empty: any
  std::function<void()> prepare = [] {};  ///< makes what it starts from, whatever was left
  std::vector<std::string> state = {};    ///< the directories that it makes, changes or removes
  /// Of the program: its answers, each with the reports that may stand ahead of it. Beside these it
  /// may end with 1 behind a fatal report.
  std::map<int, std::vector<std::string>> answers = {};
  /// Of a routine: how "TYPE: TEXT" of an exception may begin.
  std::vector<std::string> exceptions = {};
  std::string keeps = {};   ///< of a routine: what it may leave open
  bool makes_calls = true;  ///< of a routine: any that can fail
  bool is_sister = false;   ///< most of it is another road's
  size_t own_process = 0;   ///< whose calls are the program's own; the others are its children
  /// Whether an outcome claims that all was done: the state must then be that of a clean run.
  std::function<bool(const testsupport::Outcome&)> claims_all = {};
  /// What a run comes to behind one with a fault, where that is not just what a clean one comes to:
  /// `left` is the state that it finds, `fresh` that of prepare(), `clean` that behind a clean run.
  std::function<Again(const Lines& left, const Lines& fresh, const Lines& clean)> again = {};

  bool is_tool() const { return !answers.empty(); }
};

/// The places that the roads lead through, in this process's private mounts: settings, archives, a
/// skeleton, other clients' stores, a log socket, and a database server.
class Stage {
 public:
  Stage();
  ~Stage();

  /// The modes of the program, the archive types apart where their roads differ.
  static std::vector<Road> tool_roads();
  /// The routines of the library.
  static std::vector<Road> routine_roads();

  /// All that no road may touch, as exact_listing() gives it.
  static Lines outside();

 private:
  std::unique_ptr<testsupport::MariaDbServer> server_;
};

}  // namespace faults

#endif
