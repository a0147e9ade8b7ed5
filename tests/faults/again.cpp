#include "faults/again.h"

#include <algorithm>
#include <optional>
#include <sstream>

#include "faults/messages.h"

namespace faults {
namespace {

/// A line of tree_listing(): "f 0644 0:0 httpdocs/index.html <html>", or the path of the tree
/// itself. No name here has a blank.
struct Entry {
  std::string type, mode, owner, path, content;

  explicit Entry(const std::string& line) {
    std::istringstream words(line);
    words >> type >> mode >> owner >> path;
    words.get();
    std::getline(words, content);
  }
  std::string line() const {
    if (path.empty()) return type;
    const std::string head = type + " " + mode + " " + owner + " " + path;
    return type == "f" ? head + " " + content : head;
  }
};

std::optional<Entry> find(const Lines& lines, const std::string& path) {
  for (const std::string& line : lines)
    if (Entry entry(line); entry.path == path) return entry;
  return std::nullopt;
}

/// Whether a fault may leave `found` of what a clean run makes as `whole`.
bool is_part_of(const Entry& found, const Entry& whole) {
  const std::string created = whole.type == "d" ? "0755" : "0644";
  const bool beginning = whole.content.compare(0, found.content.size(), found.content) == 0;
  return found.type == whole.type && beginning &&
         (found.mode == whole.mode || found.mode == created) &&
         (found.owner == whole.owner || found.owner == "0:0");
}

constexpr const char* kReserved = "0600";  // 0620 under this umask, 022

}  // namespace

Again deployed_again(const std::string& host, const Lines& left, const Lines& clean) {
  Again again;
  for (const std::string& line : left)
    if (!find(clean, Entry(line).path)) again.complaint = "leaves what is not deployed: " + line;
  for (const std::string& line : clean) {
    const Entry whole(line);
    const std::optional<Entry> found = find(left, whole.path);
    again.state.push_back(found ? found->line() : line);
    if (!found) continue;
    if (!is_part_of(*found, whole)) again.complaint = "leaves what is not a part: " + found->line();
    if (whole.type == "f")
      again.reports.push_back("widoctl:InstallSkeleton(): " + host + "/" + whole.path +
                              " already exists, not restoring");
  }
  return again;
}

Again backed_up_again(const Lines& left, const Lines& fresh, const Lines& clean) {
  Again again;
  again.state = left;
  const auto made = std::find_if(clean.begin(), clean.end(), [&fresh](const std::string& line) {
    return !contains(fresh, line);
  });
  if (made == clean.end()) return {"a clean run backs nothing up", {}, {}};
  Entry copy(*made);
  for (const std::string& line : left) {
    if (contains(fresh, line)) continue;
    const Entry found(line);
    const bool whole = line == *made;
    const bool empty = found.path == copy.path && found.type == "f" && found.content.empty() &&
                       (found.mode == copy.mode || found.mode == kReserved);
    if (!whole && !empty) again.complaint = "leaves what is no backup: " + line;
  }
  if (find(left, copy.path)) copy.path += ".1";
  again.state.push_back(copy.line());
  return again;
}

}  // namespace faults
