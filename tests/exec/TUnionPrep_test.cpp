#include <gtest/gtest.h>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TUnionPrep;
using testexec::command;
using testexec::recorded;
using testexec::Recorder;
using testsupport::ScratchDir;

namespace {

using Prepare = TExec::TPrepare;
using Hooks = std::vector<std::string>;

}  // namespace

TEST(TUnionPrep, CallsTheFirstAndThenTheSecondAtEachPoint) {
  const ScratchDir scratch;
  const std::string file = scratch / "record";
  TExec plain = command({"true"});
  const Handle<Prepare> first(new Recorder(file, " 1"));
  const Handle<Prepare> second(new Recorder(file, " 2"));
  TUnionPrep both(first, second);
  both.bef_fork(plain);
  both.fork_failed(plain);
  both.aft_fork4p(plain);
  both.aft_fork4d(plain);
  both.bef_exec(plain);
  both.exec_failed(plain);
  EXPECT_EQ(recorded(file, "parent"),
            (Hooks{"bef_fork 1", "bef_fork 2", "fork_failed 1", "fork_failed 2", "aft_fork4p 1",
                   "aft_fork4p 2", "aft_fork4d 1", "aft_fork4d 2", "bef_exec 1", "bef_exec 2",
                   "exec_failed 1", "exec_failed 2"}));
}

TEST(TUnionPrep, MayLackEither) {
  const ScratchDir scratch;
  TExec plain = command({"true"});
  const Handle<Prepare> none;
  const Handle<Prepare> some(new Recorder(scratch / "record"));
  for (TUnionPrep both : {TUnionPrep(none, some), TUnionPrep(some, none), TUnionPrep(none, none)}) {
    both.bef_fork(plain);
    both.fork_failed(plain);
    both.aft_fork4p(plain);
    both.aft_fork4d(plain);
    both.bef_exec(plain);
    both.exec_failed(plain);
  }
  const Hooks once{"bef_fork",   "fork_failed", "aft_fork4p",
                   "aft_fork4d", "bef_exec",    "exec_failed"};
  Hooks twice = once;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(recorded(scratch / "record", "parent"), twice);
}

TEST(TUnionPrep, AnswersAsTheSecondDoes) {
  const ScratchDir scratch;
  TExec plain = command({"true"});
  const auto answering = [&scratch](bool answer) {
    auto* const recorder = new Recorder(scratch / "record");
    recorder->fork_answer = answer;
    recorder->exec_answer = answer;
    return Handle<Prepare>(recorder);
  };
  const Handle<Prepare> none;
  struct Row {
    Handle<Prepare> first, second;
    bool answer;
  };
  for (const Row& row :
       {Row{answering(false), answering(true), true}, Row{answering(true), answering(false), false},
        Row{answering(true), answering(true), true}, Row{answering(false), answering(false), false},
        Row{none, answering(false), false}, Row{none, answering(true), true},
        Row{answering(false), none, true}, Row{none, none, true}}) {
    TUnionPrep both(row.first, row.second);
    EXPECT_EQ(both.fork_failed(plain), row.answer);
    EXPECT_EQ(both.exec_failed(plain), row.answer);
  }
}
