// The whole sweep, or a part of it:
//   fault_sweep [--seconds N] [--own-step N] [--child-step N] [--phase N] [--kill N] [ROAD...]
// A road is meant by the beginning of its name. Ends with 1 where there was anything to complain
// of.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <exception>
#include <iostream>

#include "faults/roads.h"
#include "faults/sweep.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Arguments {
  long seconds = 0;  ///< 0: as long as it takes
  faults::SweepOptions sweep;
  int kill_step = 10;
  std::vector<std::string> names;
};

Arguments parse(int argc, char** argv) {
  Arguments arguments;
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] != '-') {
      arguments.names.emplace_back(argv[i]);
      continue;
    }
    const std::string option = argv[i];
    const int value = ++i < argc ? static_cast<int>(strtol(argv[i], nullptr, 10)) : 0;
    if (option == "--seconds")
      arguments.seconds = value;
    else if (option == "--own-step" && value > 0)
      arguments.sweep.own_step = value;
    else if (option == "--child-step" && value > 0)
      arguments.sweep.child_step = value;
    else if (option == "--phase")
      arguments.sweep.phase = value;
    else if (option == "--kill" && value > 0)
      arguments.kill_step = value;
    else
      throw std::runtime_error("no such option, or no number behind it: " + option);
  }
  return arguments;
}

bool is_wanted(const faults::Road& road, const std::vector<std::string>& names) {
  if (names.empty()) return true;
  for (const std::string& name : names)
    if (road.name.rfind(name, 0) == 0) return true;
  return false;
}

/// How much there was to complain of.
size_t tell(const faults::Road& road, const char* what, const faults::SweepResult& result) {
  std::cout << what << summary(road, result) << std::endl;
  for (const std::string& complaint : result.complaints) std::cout << "  " << complaint << "\n";
  return result.complaints.size();
}

size_t run(Arguments arguments) {
  const faults::Stage stage;
  const auto end = Clock::now() + std::chrono::seconds(arguments.seconds);
  if (arguments.seconds > 0) arguments.sweep.go_on = [end] { return Clock::now() < end; };
  std::vector<faults::Road> roads = faults::Stage::tool_roads();
  for (const faults::Road& road : faults::Stage::routine_roads()) roads.push_back(road);
  size_t complaints = 0;
  long faults_made = 0;
  for (const faults::Road& road : roads) {
    if (!is_wanted(road, arguments.names)) continue;
    const faults::SweepResult result = sweep(road, arguments.sweep);
    faults_made += result.faults;
    complaints += tell(road, "", result);
    if (road.name.rfind("install", 0) != 0 || !arguments.sweep.go_on()) continue;
    const faults::SweepResult killed = kill_sweep(road, arguments.kill_step);
    faults_made += killed.faults;
    complaints += tell(road, "killed: ", killed);
  }
  std::cout << faults_made << " faults, " << complaints << " complaints" << std::endl;
  return complaints;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(parse(argc, argv)) == 0 ? 0 : 1;
  } catch (const std::exception& failure) {
    std::cerr << "fault_sweep: " << failure.what() << "\n";
    return 2;
  }
}
