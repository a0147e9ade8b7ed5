// Measures and prints the table. Started by scripts/bench in a private mount namespace.
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "calls.h"
#include "measure.h"
#include "program.h"
#include "report.h"
#include "rows.h"

namespace {

using bench::Contenders;
using bench::Row;

struct Options {
  bench::Plan plan{7, 41, 20};
  std::vector<long> sizes{100, 10000, 100000};
  bool calls = false;
  bool list = false;
  std::vector<std::string> names;
};

constexpr const char* kUsage =
    "usage: bench [--quick] [--pairs N] [--sizes N,...] [--calls] [--list] [ROW...]\n"
    "  --quick   at least 3 pairs for 2 seconds, and trees of 100 and 10000 entries\n"
    "  --pairs   exactly so many pairs a row\n"
    "  --sizes   entries of the trees\n"
    "  --calls   count system calls with strace instead of measuring times\n"
    "  --list    show the rows and what each is compared with\n"
    "  ROW       only the rows whose names begin so\n";

std::vector<long> numbers(const char* text) {
  std::vector<long> found;
  std::istringstream stream(text);
  for (std::string word; std::getline(stream, word, ',');)
    found.push_back(strtol(word.c_str(), nullptr, 10));
  return found;
}

Options parse(int argc, char** argv) {
  const option known[] = {{"quick", 0, nullptr, 'q'}, {"pairs", 1, nullptr, 'p'},
                          {"sizes", 1, nullptr, 's'}, {"calls", 0, nullptr, 'c'},
                          {"list", 0, nullptr, 'l'},  {}};
  Options options;
  for (int found = 0; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    if (found == 'q') options.plan = {3, 41, 2}, options.sizes = {100, 10000};
    if (found == 'p')
      options.plan = {static_cast<int>(strtol(optarg, nullptr, 10)),
                      static_cast<int>(strtol(optarg, nullptr, 10)), 0};
    if (found == 's') options.sizes = numbers(optarg);
    if (found == 'c') options.calls = true;
    if (found == 'l') options.list = true;
    if (found == '?') {
      fputs(kUsage, stderr);
      exit(2);
    }
  }
  options.names.assign(argv + optind, argv + argc);
  return options;
}

bool is_wanted(const Row& row, const std::vector<std::string>& names) {
  const auto begins_row = [&row](const std::string& name) { return row.name.rfind(name, 0) == 0; };
  return names.empty() || std::any_of(names.begin(), names.end(), begins_row);
}

std::vector<Row> wanted_rows(const Options& options) {
  std::vector<Row> rows;
  bench::add_tool_rows(rows, options.sizes);
  bench::add_tree_rows(rows, options.sizes);
  bench::add_clean_rows(rows, options.sizes);
  bench::add_capture_rows(rows);
  bench::add_object_rows(rows);
  bench::add_deploy_rows(rows, options.sizes);
  const auto is_unwanted = [&options](const Row& row) { return !is_wanted(row, options.names); };
  rows.erase(std::remove_if(rows.begin(), rows.end(), is_unwanted), rows.end());
  return rows;
}

void count_row(const Row& row) {
  const auto count = [](const std::optional<bench::Contender>& contender) {
    return contender ? bench::count_calls(*contender) : -1;
  };
  const Contenders contenders = row.set_up();
  bench::print_calls(row, contenders.repeats, count(contenders.ours), count(contenders.instead),
                     count(contenders.limit));
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  const std::vector<Row> rows = wanted_rows(options);
  if (options.list) return bench::print_list(rows), 0;

  bench::print_machine();
  options.calls ? bench::print_calls_heading() : bench::print_time_heading();
  for (const Row& row : rows) {
    if (row.print)
      row.print();
    else if (options.calls)
      count_row(row);
    else
      bench::print_times(row, bench::measure(row.set_up(), options.plan));
  }
  return 0;
}
