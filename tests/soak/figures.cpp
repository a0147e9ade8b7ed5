#include "soak/figures.h"

#include <ctype.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <stdexcept>

namespace fs = std::filesystem;

namespace soak {

std::set<pid_t> present_processes() {
  std::set<pid_t> present;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (isdigit(static_cast<unsigned char>(name[0])) != 0) present.insert(std::stoi(name));
  }
  return present;
}

std::string process_name(pid_t pid) {
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
  return name;
}

long count_descriptors(pid_t pid) {
  const fs::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd");
  return std::distance(begin(entries), end(entries));
}

long resident_memory(pid_t pid) {
  // What "status" says is behind by some pages for each processor.
  std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);)
    if (line.rfind("Rss:", 0) == 0) return std::stol(line.substr(4));
  throw std::runtime_error("no memory of process " + std::to_string(pid));
}

long allocated_memory() {
  const struct mallinfo2 heap = mallinfo2();
  return static_cast<long>(heap.uordblks + heap.hblkhd);
}

void Figure::note(double progress, long value) {
  const auto tenth = static_cast<size_t>(progress * kTenths);
  long& largest = largest_[std::min(tenth, kTenths - 1)];
  largest = std::max(largest, value);
}

std::string Figure::summary() const {
  std::string line = "  " + name_ + ":";
  for (const long value : largest_) line += " " + std::to_string(value);
  if (!is_flat()) line += "  NOT FLAT";
  return line;
}

bool Figure::is_flat() const {
  return largest_.front() >= 0 && largest_.back() >= 0 &&
         largest_.back() <= largest_.front() + allowance_;
}

FigureByKind::Sums FigureByKind::sums() const {
  Sums sums;
  for (const auto& [kind, values] : values_) {
    const auto half = static_cast<long>(values.size() / 2);
    sums.first = std::accumulate(values.begin(), values.begin() + half, sums.first);
    sums.last = std::accumulate(values.end() - half, values.end(), sums.last);
    sums.count += half;
  }
  return sums;
}

std::string FigureByKind::summary() const {
  const Sums all = sums();
  if (all.count == 0) return "  " + name_ + ": nothing to compare";
  return "  " + name_ + ", mean of the first and the last " + std::to_string(all.count) +
         " like ones: " + std::to_string(all.first / all.count) + " " +
         std::to_string(all.last / all.count) + (is_flat() ? "" : "  NOT FLAT");
}

bool FigureByKind::is_flat() const {
  const Sums all = sums();
  return all.count > 0 && static_cast<double>(all.last) <= static_cast<double>(all.first) * growth_;
}

}  // namespace soak
