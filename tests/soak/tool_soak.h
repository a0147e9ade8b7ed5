// Very many operations of the tool, several at once, with a reader of the stores beside them.
#ifndef TESTS_SOAK_TOOL_SOAK_H
#define TESTS_SOAK_TOOL_SOAK_H

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "soak/figures.h"
#include "soak/operations.h"
#include "soak/runs.h"
#include "soak/stores.h"

namespace soak {

struct ToolSoakOptions {
  std::string launcher;        ///< what starts it (launcher.c)
  std::string program;         ///< the tool
  size_t operations = 0;       ///< how many in all
  size_t clients = 0;          ///< more than are served at once
  unsigned seed = 1;           ///< of the choice of operations
  pid_t server = -1;           ///< the database server
  std::filesystem::path work;  ///< an empty directory
};

class ToolSoak {
 public:
  explicit ToolSoak(ToolSoakOptions options);

  /// @return whether nothing was found wrong; the summary is on standard output then, and what is
  /// wrong on standard error
  bool run();

 private:
  void start_some();
  void finish_some();
  void finish(const Ended& ended);
  void read_one_store();
  void take_figures();
  void examine_the_end(const std::set<pid_t>& processes_before, const Listing& outside_before);
  bool report() const;
  void wrong(const std::string& text);
  bool gives_up() const;

  ToolSoakOptions options_;
  Choice choice_;
  Stores stores_;
  Runs runs_;

  size_t started_ = 0;
  size_t ended_ = 0;
  size_t read_ = 0;      ///< stores that the reader compared while operations went on for others
  size_t compared_ = 0;  ///< stores that were compared after the operation on them
  std::map<std::string, size_t> kinds_;
  std::vector<std::string> wrong_;

  Figure server_descriptors_;
  Figure server_memory_;
  Figure own_descriptors_;
  Figure own_memory_;
  FigureByKind peaks_alone_;   ///< of the runs that started no other program
  FigureByKind peaks_others_;  ///< of those that did, with what these took
};

}  // namespace soak

#endif
