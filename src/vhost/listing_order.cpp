#include <dirent.h>
#include <string.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "vhost/listing.private.h"

namespace frask {

/// Goes through a listing; the levels are a list, as they are when it is made.
class TreeVisit {
 public:
  enum class Order { kReading, kAscending, kDescending };

  TreeVisit(const std::deque<std::string>& directories, Order order,
            const TreeListing::Visitor& visit)
      : directories_(directories), order_(order), visit_(visit) {}

  void run(const std::string& tops) {
    descend(tops);
    while (!levels_.empty()) step();
  }

 private:
  using Record = TreeListing::Record;

  /// The records of a directory that are still to come, as they were read or sorted.
  struct Level {
    size_t path_length;
    const char* at;
    const char* end;
    std::vector<Record> sorted = {};
    size_t next = 0;

    bool finished() const { return at == end && next == sorted.size(); }
    Record take() { return next < sorted.size() ? sorted[next++] : Record(at); }
  };

  void step() {
    if (levels_.back().finished()) return ascend();
    const Record record = levels_.back().take();
    const bool listed = record.directory != Record::kNotListed;
    path_.resize(levels_.back().path_length);
    if (!path_.empty()) path_ += '/';
    path_ += record.name;
    if (order_ != Order::kDescending || !listed) visit_(path_, record.type == DT_DIR);
    if (listed) descend(directories_[record.directory]);
  }

  void descend(const std::string& records) {
    levels_.push_back({path_.size(), records.data(), records.data() + records.size()});
    if (order_ != Order::kReading) sort(levels_.back());
  }

  void ascend() {
    path_.resize(levels_.back().path_length);
    levels_.pop_back();
    if (order_ == Order::kDescending && !levels_.empty()) visit_(path_, true);
  }

  /// In one directory the order of paths is that of the names.
  void sort(Level& level) const {
    while (level.at != level.end) level.sorted.emplace_back(level.at);
    const bool descending = order_ == Order::kDescending;
    std::sort(level.sorted.begin(), level.sorted.end(),
              [descending](const Record& a, const Record& b) {
                return descending ? strcmp(a.name, b.name) > 0 : strcmp(a.name, b.name) < 0;
              });
  }

  const std::deque<std::string>& directories_;
  const Order order_;
  const TreeListing::Visitor& visit_;
  std::string path_;
  std::vector<Level> levels_;
};

void TreeListing::inReadingOrder(const Visitor& visit) const {
  TreeVisit(directories_, TreeVisit::Order::kReading, visit).run(tops_);
}

void TreeListing::ascending(const Visitor& visit) const {
  TreeVisit(directories_, TreeVisit::Order::kAscending, visit).run(tops_);
}

void TreeListing::descending(const Visitor& visit) const {
  TreeVisit(directories_, TreeVisit::Order::kDescending, visit).run(tops_);
}

}  // namespace frask
