// A program is started without a fork where nobody can tell the difference: neither can it, from
// the descriptors that it finds.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include "exec/commands.h"
#include "exec/exec_support.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TPipe;
using frask::sys::TReadFromPipeline;
using frask::sys::TReadOut;
using frask::sys::TRedirect;
using frask::sys::TWriteToPipeline;
using testsupport::Outcome;
using testsupport::ScratchDir;

namespace {

using Prepare = TExec::TPrepare;

enum class Wiring { kOutput, kWriter, kReader };

/// Of a pipe that gets 10 and 11, as the only descriptors above the standard ones.
Handle<Prepare> wired(Wiring wiring) {
  if (wiring == Wiring::kOutput) return Handle<Prepare>(new TReadOut);
  const Handle<TPipe> pipe(new TPipe);
  if (wiring == Wiring::kWriter) return Handle<Prepare>(new TWriteToPipeline(pipe));
  pipe->create();
  return Handle<Prepare>(new TReadFromPipeline(pipe));
}

/// One command with a pipe and a redirection, in either order.
struct Row {
  Wiring wiring;
  bool redirected_first;
  int target;
  int source;

  std::string name() const {
    return std::to_string(static_cast<int>(wiring)) + (redirected_first ? " behind " : " before ") +
           std::to_string(source) + " to " + std::to_string(target);
  }

  TExec command(const std::string& file) const {
    TExec probe(testexec::arguments({exectest::kProbe, "fds", file}));
    if (redirected_first) probe = probe & TRedirect(target, source);
    probe += wired(wiring);
    return redirected_first ? probe : probe & TRedirect(target, source);
  }
};

std::vector<Row> rows() {
  std::vector<Row> all;
  for (const Wiring wiring : {Wiring::kOutput, Wiring::kWriter, Wiring::kReader})
    for (const bool redirected_first : {true, false})
      for (const int target : {0, 1, 10, 11})
        for (const int source : {1, 2, 10, 11})
          all.push_back({wiring, redirected_first, target, source});
  return all;
}

/// What the program finds open.
std::string found(TExec command, const std::string& file) {
  if (command.execute().result != 0) return "the program has failed";
  return testsupport::read_file(file);
}

}  // namespace

TEST(Spawn, GivesTheProgramTheDescriptorsThatAForkGivesIt) {
  const ScratchDir scratch;
  const std::string file = scratch / "found";
  const Outcome outcome = testexec::alone([&] {
    for (const int fd : {0, 1}) exectest::open_as(fd, scratch / std::to_string(fd));
    for (const Row& row : rows()) {
      const std::string spawned = found(row.command(file), file);
      const std::string forked = found(testexec::forked(row.command(file)), file);
      if (spawned != forked)
        dprintf(STDERR_FILENO, "%s: spawned\n%sforked\n%s", row.name().c_str(), spawned.c_str(),
                forked.c_str());
    }
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.err, "");
}

TEST(Spawn, ClosesAPipesEndsUnderWhateverARedirectionHasMadeOfThem) {
  const ScratchDir scratch;
  const std::string file = scratch / "found";
  const Outcome outcome = testexec::alone([&] {
    for (const int fd : {0, 1, 2}) exectest::open_as(fd, "/dev/null");
    for (const int end : {10, 11})
      testsupport::write_file(scratch / std::to_string(end),
                              found(Row{Wiring::kWriter, true, end, 2}.command(file), file));
  });
  const std::string standard_input = "0 /dev/null rw\n";
  const std::string standard_error = "2 /dev/null rw\n";
  EXPECT_EQ(testsupport::read_file(scratch / "10"), standard_input + "1 pipe w\n" + standard_error);
  EXPECT_EQ(testsupport::read_file(scratch / "11"),
            standard_input + "1 /dev/null rw\n" + standard_error)
      << "the redirection has replaced the end that the program was to write to";
}
