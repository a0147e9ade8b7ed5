// What is run with system calls that fail: every mode of the program, and the library's routines.
#ifndef TESTS_FAULTS_ROADS_H
#define TESTS_FAULTS_ROADS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/mariadb_server.h"

namespace faults {

struct Road {
  std::string name;
  std::vector<std::string> words;  ///< the program and its arguments
  std::string input;
  std::function<void()> prepare;   ///< makes what it starts from, whatever was left
  std::vector<std::string> state;  ///< the directories that it makes, changes or removes
  std::vector<int> results;        ///< of the program's own table, beside 1 behind a fatal report
  /// Whether an outcome claims that all was done: the state must then be that of a clean run.
  std::function<bool(const testsupport::Outcome&)> claims_all;

  bool is_tool() const { return !results.empty(); }
};

/// The places that the roads lead through, in this process's private mounts: settings, archives, a
/// skeleton, other clients' stores, and a database server.
class Stage {
 public:
  Stage();

  /// The modes of the program, the archive types apart where their roads differ.
  static std::vector<Road> tool_roads();
  /// The routines of the library.
  static std::vector<Road> routine_roads();

  /// All that no road may touch, as exact_listing() gives it.
  static std::vector<std::string> outside();

 private:
  std::unique_ptr<testsupport::MariaDbServer> server_;
};

}  // namespace faults

#endif
