#include <gtest/gtest.h>

#include <typeinfo>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::fork_mode;
using frask::sys::path_mode;
using frask::sys::TExec;
using frask::sys::TExecsList;
using frask::sys::TFromFile;
using frask::sys::TReadFromPipeline;
using frask::sys::TReadFromStr;
using frask::sys::TRedirect;
using frask::sys::TRedirectToFile;
using frask::sys::TToFile;
using frask::sys::TUnionPrep;
using frask::sys::TWriteToPipeline;
using frask::sys::wait_mode;
using testexec::capture;
using testexec::command;
using testexec::shell;
using testsupport::read_file;
using testsupport::ScratchDir;
using testsupport::write_file;

namespace {

using Mode = std::bitset<3>;
using Prepare = TExec::TPrepare;

/// The preparations of a command in the order in which they act.
void collect(const Prepare* prepare, std::vector<const Prepare*>& all) {
  if (prepare == nullptr) return;
  if (const auto* both = dynamic_cast<const TUnionPrep*>(prepare)) {
    collect(both->first().get(), all);
    collect(both->second().get(), all);
  } else {
    all.push_back(prepare);
  }
}

std::vector<const Prepare*> preparations(const TExec& exec) {
  std::vector<const Prepare*> all;
  collect(exec.preparation().get(), all);
  return all;
}

/// The only preparation of a command, null when it is of another type or not the only one.
template <class Type>
const Type* only(const TExec& exec) {
  const std::vector<const Prepare*> all = preparations(exec);
  return all.size() == 1 ? dynamic_cast<const Type*>(all[0]) : nullptr;
}

std::vector<std::string> programs(const TExecsList& line) {
  std::vector<std::string> names;
  for (const TExec& exec : line) names.push_back(exec.args()[0]);
  return names;
}

std::vector<unsigned long> modes(const TExecsList& line) {
  std::vector<unsigned long> values;
  for (const TExec& exec : line) values.push_back(exec.mode().to_ulong());
  return values;
}

using Names = std::vector<std::string>;
using Modes = std::vector<unsigned long>;

}  // namespace

TEST(ModeOperators, KeepAddToggleAndReplaceBits) {
  const TExec five(testexec::arguments({"true"}), 5);
  EXPECT_EQ((five & Mode(6)).mode(), Mode(4));
  EXPECT_EQ((five | Mode(2)).mode(), Mode(7));
  EXPECT_EQ((five ^ Mode(3)).mode(), Mode(6));
  EXPECT_EQ((five * Mode(2)).mode(), Mode(2));
  EXPECT_EQ((five * Mode(0)).mode(), Mode(0));
  EXPECT_EQ(five.mode(), Mode(5)) << "the operand is as it was";
}

TEST(ModeOperators, LeaveArgumentsAndPreparationAlone) {
  const TExec prepared = command({"true"}) & TRedirect(2, 1);
  for (const TExec& changed :
       {prepared & Mode(1), prepared | Mode(1), prepared ^ Mode(1), prepared * Mode(1)}) {
    EXPECT_EQ(&changed.args()[0], &prepared.args()[0]);
    EXPECT_EQ(changed.preparation().get(), prepared.preparation().get());
  }
}

TEST(PreparationOperators, ReplaceWithATimes) {
  const Handle<Prepare> given(new Prepare);
  const TExec prepared = command({"true"}) & TRedirect(2, 1);
  const TExec changed = prepared * given;
  EXPECT_EQ(changed.preparation().get(), given.get());
  EXPECT_NE(only<TRedirect>(prepared), nullptr) << "the operand is as it was";
  EXPECT_EQ(changed.mode(), prepared.mode());
}

TEST(PreparationOperators, AddBehindWhatIsThere) {
  TExec exec = command({"true"});
  const Handle<Prepare> first(new Prepare);
  const Handle<Prepare> second(new Prepare);
  TExec& result = exec += first;
  EXPECT_EQ(&result, &exec);
  const auto* const both = dynamic_cast<const TUnionPrep*>(exec.preparation().get());
  ASSERT_NE(both, nullptr);
  EXPECT_FALSE(both->first());
  exec += second;
  EXPECT_EQ(preparations(exec), (std::vector<const Prepare*>{first.get(), second.get()}));
}

TEST(PreparationOperators, AddToTheLastCommandOfALine) {
  TExecsList line = (command({"a"}), command({"b"}));
  const Handle<Prepare> added(new Prepare);
  TExecsList& result = line += added;
  EXPECT_EQ(&result, &line);
  EXPECT_FALSE(line.front().preparation());
  EXPECT_EQ(preparations(line.back()), (std::vector<const Prepare*>{added.get()}));
}

TEST(PreparationOperators, LeaveAnEmptyLineEmpty) {
  TExecsList line;
  line += Handle<Prepare>(new Prepare);
  EXPECT_TRUE(line.empty());
  EXPECT_TRUE((line > "/dev/null").empty());
  EXPECT_TRUE((line < "/dev/null").empty());
  EXPECT_TRUE((line << "text").empty());
}

TEST(TExecOperators, AddOnePreparationToACopy) {
  const TExec plain = command({"true"});
  EXPECT_NE(only<TRedirect>(plain & TRedirect(2, 1)), nullptr);
  EXPECT_NE(only<TRedirectToFile>(plain & TRedirectToFile(2, "/dev/null", true)), nullptr);
  EXPECT_NE(only<TReadFromStr>(plain << "text"), nullptr);
  EXPECT_NE(only<TFromFile>(plain < "/dev/null"), nullptr);
  EXPECT_NE(only<TToFile>(plain > "/dev/null"), nullptr);
  EXPECT_NE(only<TToFile>(plain >> "/dev/null"), nullptr);
  EXPECT_FALSE(plain.preparation()) << "the operand is as it was";
}

TEST(TExecOperators, DoWhatTheyAreFor) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  ((shell("echo one; echo error >&2") > file) & TRedirectToFile(2, file, true)).execute();
  EXPECT_EQ(read_file(file), "one\nerror\n");
  ((shell("echo two; echo error >&2") >> file) & TRedirect(2, 1)).execute();
  EXPECT_EQ(read_file(file), "one\nerror\ntwo\nerror\n");
  (command({"tr", "a-z", "A-Z"}) << "text" > file).execute();
  EXPECT_EQ(read_file(file), "TEXT");
  ((command({"cat"}) < file) >> (scratch / "copy")).execute();
  ((command({"cat"}) < file) >> (scratch / "copy")).execute();
  EXPECT_EQ(read_file(scratch / "copy"), "TEXTTEXT");
}

TEST(TExecsListOperators, AddOnePreparationToTheLastCommandOfACopy) {
  const TExecsList line = (command({"a"}), command({"b"}));
  const std::vector<TExecsList> changed{
      line & TRedirect(2, 1), line & TRedirectToFile(2, "/dev/null", true), line << "text",
      line<"/dev/null", line> "/dev/null", line >> "/dev/null"};
  for (const TExecsList& each : changed) {
    EXPECT_EQ(programs(each), (Names{"a", "b"}));
    EXPECT_FALSE(each.begin()->preparation());
  }
  const auto last = [&changed](size_t i) { return *std::next(changed[i].begin()); };
  EXPECT_NE(only<TRedirect>(last(0)), nullptr);
  EXPECT_NE(only<TRedirectToFile>(last(1)), nullptr);
  EXPECT_NE(only<TReadFromStr>(last(2)), nullptr);
  EXPECT_NE(only<TFromFile>(last(3)), nullptr);
  EXPECT_NE(only<TToFile>(last(4)), nullptr);
  EXPECT_NE(only<TToFile>(last(5)), nullptr);
  for (const TExec& exec : line) EXPECT_FALSE(exec.preparation()) << "the operand is as it was";
}

TEST(TExecsListOperators, LetInputLandOnTheLastCommand) {
  const ScratchDir scratch;
  write_file(scratch / "in", "file");
  const TExecsList line = (command({"true"}), command({"cat"}));
  EXPECT_EQ(capture(line << "text").out, "text");
  EXPECT_EQ(capture(line < (scratch / "in")).out, "file");
  const TExecsList pipeline = shell("echo first") | command({"cat"});
  EXPECT_EQ(capture(pipeline << "text").out, "text") << "even in place of the pipe";
}

TEST(TExecsListOperators, TruncateAndAppend) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  const TExecsList line = shell("echo text") | command({"cat"});
  (line > file).execute();
  (line > file).execute();
  EXPECT_EQ(read_file(file), "text\n");
  (line >> file).execute();
  EXPECT_EQ(read_file(file), "text\ntext\n");
  ((command({"true"}), shell("echo error >&2")) & TRedirectToFile(2, file, false)).execute();
  EXPECT_EQ(read_file(file), "error\n");
}

TEST(PipelineOperator, PutsOnePipeBetweenTheTwoCommandsThatMeet) {
  const TExec a = command({"a"});
  const TExec b = command({"b"});
  const TExecsList ab = (a, b);
  const TExecsList cd = (command({"c"}), command({"d"}));
  struct Row {
    TExecsList line;
    Names names;
    size_t writer;
  };
  for (const Row& row : {Row{a | b, {"a", "b"}, 0}, Row{ab | b, {"a", "b", "b"}, 1},
                         Row{a | cd, {"a", "c", "d"}, 0}, Row{ab | cd, {"a", "b", "c", "d"}, 1}}) {
    SCOPED_TRACE(testing::PrintToString(row.names));
    EXPECT_EQ(programs(row.line), row.names);
    const std::vector<TExec> execs(row.line.begin(), row.line.end());
    const auto* const writer = only<TWriteToPipeline>(execs[row.writer]);
    const auto* const reader = only<TReadFromPipeline>(execs[row.writer + 1]);
    ASSERT_NE(writer, nullptr);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(&writer->pipe(), &reader->pipe()) << "one pipe for both";
    for (size_t i = 0; i < execs.size(); ++i)
      EXPECT_EQ(preparations(execs[i]).size(), i == row.writer || i == row.writer + 1 ? 1U : 0U);
  }
  EXPECT_FALSE(a.preparation()) << "the operands are as they were";
  EXPECT_EQ(programs(cd), (Names{"c", "d"}));
  for (const TExec& exec : ab) EXPECT_FALSE(exec.preparation());
  for (const TExec& exec : cd) EXPECT_FALSE(exec.preparation());
}

TEST(PipelineOperator, MakesANewPipeEachTime) {
  const TExec a = command({"a"});
  const TExec b = command({"b"});
  const TExecsList first = a | b;
  const TExecsList second = a | b;
  EXPECT_NE(&only<TWriteToPipeline>(*first.begin())->pipe(),
            &only<TWriteToPipeline>(*second.begin())->pipe());
}

TEST(Pipeline, ClearsTheWaitOfASingleCommandBeforeALineOnly) {
  const TExec a = command({"a"});
  const TExec b = command({"b"});
  const TExecsList one(a);
  EXPECT_EQ(modes(a | b), (Modes{7, 7}));
  EXPECT_EQ(modes(one | a), (Modes{7, 7}));
  EXPECT_EQ(modes(one | TExecsList(b)), (Modes{7, 7}));
  EXPECT_EQ(modes(a | one), (Modes{5, 7}));
  EXPECT_EQ(modes((a * fork_mode) | one), (Modes{1, 7})) << "bits are kept, never added";
  EXPECT_EQ(modes((a * wait_mode) | one), (Modes{0, 7}));
  EXPECT_EQ(modes((a * path_mode) | a), (Modes{4, 7}));
  EXPECT_EQ(a.mode(), Mode(7)) << "the operand is as it was";
}

TEST(Pipeline, WithoutThatWaitMovesMoreThanAPipeHolds) {
  const TExec much = command({"head", "-c", "1000000", "/dev/zero"});
  const TExecsList count = TExecsList(command({"wc", "-c"}));
  EXPECT_EQ(capture(much | count).out, "1000000\n");
}

TEST(Pipeline, AddsItsReaderBehindWhatTheRightCommandHas) {
  const ScratchDir scratch;
  write_file(scratch / "in", "file");
  const TExec reading = command({"cat"}) < (scratch / "in");
  EXPECT_EQ(capture(shell("echo pipe") | reading).out, "pipe\n") << "the pipe wins";
}

TEST(Pipeline, HasNoPipeToAnEmptyLine) {
  const TExecsList none;
  const TExec a = command({"a"});
  for (const TExecsList& line : {a | none, none | a, none | TExecsList(a), TExecsList(a) | none}) {
    EXPECT_EQ(programs(line), (Names{"a"}));
    EXPECT_FALSE(line.begin()->preparation());
  }
  EXPECT_EQ(modes(a | none), (Modes{5}));
  EXPECT_TRUE((none | TExecsList()).empty());
}

TEST(Pipeline, PassesDataThroughEveryPairing) {
  const TExec words = shell("echo b a");
  const TExec split = command({"tr", " ", "\\n"});
  const TExec sort = command({"sort"});
  const TExecsList tail = split | sort;
  const TExecsList head = words | split;
  EXPECT_EQ(capture(words | split | sort).out, "a\nb\n");
  EXPECT_EQ(capture(words | tail).out, "a\nb\n");
  EXPECT_EQ(capture(head | TExecsList(sort)).out, "a\nb\n");
  EXPECT_EQ(capture(words | split).out, "b\na\n");
}

TEST(SequenceOperator, ConcatenatesWithoutAPipe) {
  const TExec a = command({"a"});
  const TExec b = command({"b"});
  const TExecsList ab = (a, b);
  const TExecsList cd = (command({"c"}), command({"d"}));
  EXPECT_EQ(programs((a, b)), (Names{"a", "b"}));
  EXPECT_EQ(programs((a, cd)), (Names{"a", "c", "d"}));
  EXPECT_EQ(programs((ab, a)), (Names{"a", "b", "a"}));
  EXPECT_EQ(programs((ab, cd)), (Names{"a", "b", "c", "d"}));
  EXPECT_EQ(programs((TExecsList(), a)), (Names{"a"}));
  EXPECT_EQ(programs((ab, TExecsList())), (Names{"a", "b"}));
  EXPECT_EQ(programs(ab), (Names{"a", "b"})) << "the operands are as they were";
  EXPECT_EQ(programs(cd), (Names{"c", "d"}));
  for (const TExec& exec : (ab, cd)) EXPECT_FALSE(exec.preparation());
  EXPECT_EQ(modes((a, cd)), (Modes{7, 7, 7}));
}

TEST(SequenceOperator, LetsOneCommandFinishBeforeTheNext) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  (shell("sleep 0.1; echo first >> " + file), shell("echo second >> " + file)).execute();
  EXPECT_EQ(read_file(file), "first\nsecond\n");
}
