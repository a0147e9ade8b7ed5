// The routines of the library that are run with system calls that fail, one row each.
#ifndef TESTS_FAULTS_ROUTINES_H
#define TESTS_FAULTS_ROUTINES_H

#include <functional>
#include <string>
#include <vector>

namespace faults {

/// What a routine finds, and what it may change: roads.cpp makes these.
enum class Scene {
  kNothing,  ///< it changes no file
  kTree,     ///< a tree, all of which is as after a clean run, once the routine was silent
  kFiles,    ///< the same tree, of which the routine may change something
  kCopied,   ///< the same tree, in which it backs up a file
  kNoSite,   ///< a place for a site
  kNoShop,   ///< a site, without its subdomain
  kSite,     ///< a site with content
  kStore,    ///< an earlier store
  kUnpacked  ///< an empty directory
};

enum class Share {
  kWhole,  ///< a road of its own
  kSister  ///< most of it is another one's: a bounded sweep makes fewer of its calls fail
};

struct Routine {
  std::string name;
  std::function<std::string()> call;  ///< gives the result as text
  Scene scene = Scene::kNothing;
  Share share = Share::kWhole;
  /// What it is documented to throw: how "TYPE: TEXT" may begin. None for a plain routine, but for
  /// the entry points of the virtual hosts.
  std::vector<std::string> exceptions = {};
  bool makes_calls = true;  ///< system calls, that is, those that can fail
  int process = 0;          ///< whose calls are its own: 1 for what is made for a child
  std::string keeps = {};   ///< what it leaves open as documented, e.g. "socket:"
  std::string input = {};   ///< standard input
};

using Routines = std::vector<Routine>;

Routines process_routines();
Routines object_routines();
Routines settings_routines();
Routines database_routines();
Routines log_routines();
Routines tree_routines();
Routines tool_routines();
Routines site_routines();

/// All of them.
const Routines& routines();

/// What a routine throws itself where it has not done what its header says of any failure. No
/// routine is documented to throw it, so it is always a complaint.
struct Broken : std::exception {
  explicit Broken(std::string broken) : text(std::move(broken)) {}
  const char* what() const noexcept override { return text.c_str(); }
  std::string text;
};

/// Results as text.
std::string number(int value);
std::string text(const char* value);
/// A heap string, which is freed.
std::string taken(char* value);
std::string done();

/// An argument vector in a static buffer.
char* const* words(std::initializer_list<const char*> given);

}  // namespace faults

#endif
