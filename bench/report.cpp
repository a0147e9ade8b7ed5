#include "report.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>

namespace bench {
namespace {

std::string formatted(const char* format, double value) {
  char text[32];
  snprintf(text, sizeof text, format, value);
  return text;
}

std::string time_text(double seconds) {
  if (seconds < 1e-3) return formatted("%.0f us", seconds * 1e6);
  if (seconds < 1) return formatted(seconds < 0.1 ? "%.2f ms" : "%.0f ms", seconds * 1e3);
  return formatted("%.2f s", seconds);
}

std::string entries_text(const Row& row) {
  return row.entries ? std::to_string(row.entries) : "-";
}

/// Four columns: the other's time, the ratio, the target, and whether it was met.
std::string comparison_text(const std::optional<Comparison>& comparison,
                            const std::optional<Aim>& aim) {
  std::string time = "-";
  std::string ratio;
  std::string target;
  const char* verdict = "";
  if (comparison && aim) {
    time = time_text(comparison->seconds);
    ratio = formatted("%.2f", comparison->ratio);
    target = formatted("%.2f", aim->ratio);
    verdict = comparison->ratio <= aim->ratio ? "met" : "missed";
  }
  char text[64];
  snprintf(text, sizeof text, "%9s %6s %6s %-6s", time.c_str(), ratio.c_str(), target.c_str(),
           verdict);
  return text;
}

std::string count_text(long calls) {
  return calls < 0 ? "-" : std::to_string(calls);
}

std::string per_entry_text(const Row& row, int repeats, long calls) {
  if (calls < 0 || row.entries == 0) return "";
  return formatted("%.2f", static_cast<double>(calls) / static_cast<double>(row.entries * repeats));
}

}  // namespace

void print_machine() {
  utsname system = {};
  uname(&system);
  const std::string release(system.release);
  double load = 0;
  if (getloadavg(&load, 1) != 1) load = -1;
  printf("%ld cores, %s %s, trees on tmpfs, load average %.2f\n", sysconf(_SC_NPROCESSORS_ONLN),
         system.sysname, release.substr(0, release.find('-')).c_str(), load);
}

void print_list(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    printf("%-15s %s", row.name.c_str(), row.work.c_str());
    if (row.entries) printf(", %ld entries", row.entries);
    if (row.instead) printf("\n%15s   instead: %s", "", row.instead->other.c_str());
    if (row.limit) printf("\n%15s   limit:   %s", "", row.limit->other.c_str());
    printf("\n");
  }
}

void print_time_heading() {
  printf("\n%-34s %7s %9s %9s %6s %6s %-6s %9s %6s %6s\n", "work", "entries", "ours", "instead",
         "ratio", "target", "", "limit", "ratio", "target");
}

void print_times(const Row& row, const Result& result) {
  printf("%-34s %7s %9s %s %s\n", row.work.c_str(), entries_text(row).c_str(),
         time_text(result.ours).c_str(), comparison_text(result.instead, row.instead).c_str(),
         comparison_text(result.limit, row.limit).c_str());
  fflush(stdout);
}

void print_calls_heading() {
  printf("\n%-34s %7s %9s %6s %9s %6s %9s %6s\n", "system calls", "entries", "ours", "/entry",
         "instead", "/entry", "limit", "/entry");
}

void print_calls(const Row& row, int repeats, long ours, long instead, long limit) {
  printf("%-34s %7s", row.work.c_str(), entries_text(row).c_str());
  for (const long calls : {ours, instead, limit})
    printf(" %9s %6s", count_text(calls < 0 ? calls : calls / repeats).c_str(),
           per_entry_text(row, repeats, calls).c_str());
  printf("\n");
  fflush(stdout);
}

}  // namespace bench
