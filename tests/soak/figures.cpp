#include "soak/figures.h"

#include <ctype.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
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
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
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

}  // namespace soak
