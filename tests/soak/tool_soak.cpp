#include "soak/tool_soak.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <optional>
#include <utility>

#include "soak/archives.h"

namespace soak {
namespace {

constexpr size_t kAtOnce = 8;
constexpr size_t kReadAtOnce = 4;
constexpr size_t kMostWrong = 10;
constexpr long kServerMemory = 4096;  // KiB
constexpr long kOwnMemory = 512;      // KiB
// The figures of processes that do the same work differ by some pages.
constexpr double kAlike = 1.05;
constexpr int kLooks = 1000;
constexpr useconds_t kBetweenLooks = 10000;  // ten seconds in all

Archive default_skeleton(const std::filesystem::path& work) {
  return tried(an_archive("/usr/local/oxa/var/default_skeleton.tgz", "tgz"), work);
}

/// What is asked for, whichever client it is for.
std::string work_of(const Operation& operation) {
  std::string work;
  bool is_id = false;
  for (const std::string& word : operation.words) {
    if (!is_id) work += word + " ";
    is_id = word == "--id";
  }
  return work;
}

/// The processes that were not there before. One that is about to end is given time.
std::set<pid_t> strangers(const std::set<pid_t>& before) {
  std::set<pid_t> found;
  for (int look = 0; look < kLooks; ++look) {
    const std::set<pid_t> present = present_processes();
    found.clear();
    std::set_difference(present.begin(), present.end(), before.begin(), before.end(),
                        std::inserter(found, found.end()));
    if (found.empty()) break;
    usleep(kBetweenLooks);
  }
  return found;
}

}  // namespace

ToolSoak::ToolSoak(ToolSoakOptions options)
    : options_(std::move(options)),
      choice_(make_archives(options_.work), default_skeleton(options_.work), options_.seed),
      stores_("/var/www/vhosts/.skel", options_.clients),
      runs_(options_.launcher, options_.program, kAtOnce),
      // Each connection is one, and each may have the table open.
      server_descriptors_("descriptors of the server", 3 * kAtOnce),
      server_memory_("memory of the server, KiB", kServerMemory),
      own_descriptors_("descriptors of this test", 0),
      own_memory_("memory of this test, KiB", kOwnMemory),
      peaks_alone_("peak memory of the tool, KiB", kAlike),
      peaks_others_("peak memory of the tool and the archive programs, KiB", kAlike) {}

/// A store that stays wrong is reported once.
void ToolSoak::wrong(const std::string& text) {
  if (std::find(wrong_.begin(), wrong_.end(), text) != wrong_.end()) return;
  std::cerr << "soak: after " << ended_ << " operations: " << text << std::flush;
  wrong_.push_back(text);
}

bool ToolSoak::gives_up() const {
  return wrong_.size() >= kMostWrong;
}

void ToolSoak::start_some() {
  for (; started_ < options_.operations && runs_.has_place(); ++started_) {
    Operation operation = choice_.next(stores_);
    if (operation.client) stores_.begin(*operation.client);
    runs_.start(std::move(operation));
  }
}

void ToolSoak::finish_some() {
  while (const std::optional<Ended> ended = runs_.reap()) finish(*ended);
}

void ToolSoak::finish(const Ended& ended) {
  ++ended_;
  ++kinds_[ended.operation.kind];
  (ended.operation.alone ? peaks_alone_ : peaks_others_)
      .note(work_of(ended.operation), ended.peak_memory);
  if (!ended.wrong.empty()) wrong(ended.wrong);
  if (!ended.operation.client) return;
  const size_t client = *ended.operation.client;
  stores_.end(client, ended.operation.store);
  ++compared_;
  const std::string found = stores_.examine(client);
  if (!found.empty()) wrong("after its operation, " + found);
}

void ToolSoak::read_one_store() {
  std::string found = stores_.examine(choice_.client_to_read(stores_));
  if (found.empty()) found = stores_.examine_directory();
  ++read_;
  if (!found.empty()) wrong("while others were worked on, " + found);
}

void ToolSoak::take_figures() {
  const double progress = static_cast<double>(ended_) / static_cast<double>(options_.operations);
  server_descriptors_.note(progress, count_descriptors(options_.server));
  server_memory_.note(progress, resident_memory(options_.server));
  own_descriptors_.note(progress, count_descriptors(getpid()));
  own_memory_.note(progress, resident_memory(getpid()));
}

void ToolSoak::examine_the_end(const std::set<pid_t>& processes_before,
                               const Listing& outside_before) {
  for (size_t client = 0; client < stores_.size(); ++client) {
    const std::string found = stores_.examine(client);
    if (!found.empty()) wrong("in the end, " + found);
  }
  const std::string found = stores_.examine_directory();
  if (!found.empty()) wrong("in the end, " + found);
  for (const pid_t pid : strangers(processes_before))
    wrong("a process is left: " + std::to_string(pid) + " " + process_name(pid) + "\n");
  const Listing outside = outside_listing(options_.work);
  if (outside != outside_before)
    wrong("outside of the stores:\n" + differences(outside_before, outside));
  for (const Figure* figure :
       {&server_descriptors_, &server_memory_, &own_descriptors_, &own_memory_})
    if (!figure->is_flat()) wrong("not flat:\n" + figure->summary() + "\n");
  for (const FigureByKind* figure : {&peaks_alone_, &peaks_others_})
    if (!figure->is_flat()) wrong("not flat:\n" + figure->summary() + "\n");
}

bool ToolSoak::report() const {
  std::cout << "  " << ended_ << " operations on " << stores_.size() << " clients, " << kAtOnce
            << " at once, seed " << options_.seed << "\n";
  for (const auto& [kind, count] : kinds_) std::cout << "    " << kind << ": " << count << "\n";
  std::cout << "  stores compared: " << read_ << " by the reader while others were worked on, "
            << compared_ << " after the operation on them\n";
  for (const Figure* figure :
       {&server_descriptors_, &server_memory_, &own_descriptors_, &own_memory_})
    std::cout << figure->summary() << "\n";
  for (const FigureByKind* figure : {&peaks_alone_, &peaks_others_})
    std::cout << figure->summary() << "\n";
  std::cout << "  wrong: " << wrong_.size() << "\n";
  return wrong_.empty();
}

bool ToolSoak::run() {
  const Listing outside = outside_listing(options_.work);
  const std::set<pid_t> processes = present_processes();
  while (ended_ < options_.operations && !gives_up()) {
    start_some();
    for (size_t i = 0; i < kReadAtOnce; ++i) read_one_store();
    Runs::wait_a_little();
    finish_some();
    take_figures();
  }
  while (!runs_.is_empty()) {  // after giving up
    Runs::wait_a_little();
    finish_some();
  }
  examine_the_end(processes, outside);
  return report();
}

}  // namespace soak
