// Stands in for object_rows.cpp where src/exec has no execution objects.
#include "rows.h"

namespace bench {

void add_object_rows(std::vector<Row>& /*rows*/) {}

}  // namespace bench
