// The lines of the table.
#ifndef BENCH_ROWS_H
#define BENCH_ROWS_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "measure.h"

namespace bench {

/// What ours is compared with, and the ratio that it should not be above.
struct Aim {
  std::string other;
  double ratio;
};

struct Row {
  std::string name;  ///< to select it by
  std::string work;
  long entries;  ///< of the tree; 0 for a work on none
  std::optional<Aim> instead;
  std::optional<Aim> limit;
  std::function<Contenders()> set_up;  ///< makes what the contenders need, which goes with them
  std::function<void()> print = {};    ///< in the place of all that, for what is no time
};

void add_tool_rows(std::vector<Row>& rows, const std::vector<long>& sizes);
void add_tree_rows(std::vector<Row>& rows, const std::vector<long>& sizes);
void add_clean_rows(std::vector<Row>& rows, const std::vector<long>& sizes);
void add_capture_rows(std::vector<Row>& rows);
void add_object_rows(std::vector<Row>& rows);
void add_deploy_rows(std::vector<Row>& rows, const std::vector<long>& sizes);

}  // namespace bench

#endif
