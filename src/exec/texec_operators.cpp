#include "exec/texec.h"

namespace frask::sys {
namespace {

using Preparation = Handle<TExec::TPrepare>;

template <class Line, class Prepare>
Line with(Line line, const Prepare& prepare) {
  line += Preparation(new Prepare(prepare));
  return line;
}

TExecsList concatenated(TExecsList left, TExecsList right) {
  left.splice(right);
  return left;
}

TExecsList connected(TExecsList left, TExecsList right) {
  if (!left.empty() && !right.empty()) {
    const Handle<TPipe> pipe(new TPipe);
    left += Preparation(new TWriteToPipeline(pipe));
    right.front() += Preparation(new TReadFromPipeline(pipe));
  }
  left.splice(right);
  return left;
}

}  // namespace

TExec operator&(TExec command, std::bitset<3> mode) {
  command.set_mode(command.mode() & mode);
  return command;
}

TExec operator|(TExec command, std::bitset<3> mode) {
  command.set_mode(command.mode() | mode);
  return command;
}

TExec operator^(TExec command, std::bitset<3> mode) {
  command.set_mode(command.mode() ^ mode);
  return command;
}

TExec operator*(TExec command, std::bitset<3> mode) {
  command.set_mode(mode);
  return command;
}

TExec operator*(TExec command, const Preparation& preparation) {
  command.set_preparation(preparation);
  return command;
}

TExec& operator+=(TExec& command, const Preparation& preparation) {
  command.set_preparation(Preparation(new TUnionPrep(command.preparation(), preparation)));
  return command;
}

TExecsList& operator+=(TExecsList& line, const Preparation& preparation) {
  if (!line.empty()) line.back() += preparation;
  return line;
}

TExec operator&(const TExec& command, const TRedirect& redirect) {
  return with(command, redirect);
}

TExec operator&(const TExec& command, const TRedirectToFile& redirect) {
  return with(command, redirect);
}

TExecsList operator&(const TExecsList& line, const TRedirect& redirect) {
  return with(line, redirect);
}

TExecsList operator&(const TExecsList& line, const TRedirectToFile& redirect) {
  return with(line, redirect);
}

TExec operator<<(const TExec& command, const std::string& text) {
  return with(command, TReadFromStr(text));
}

TExec operator<(const TExec& command, const std::string& path) {
  return with(command, TFromFile(path));
}

// Deliberate: input, too, goes to the last command of a line, not to the first. Pinned by
// TExecsListOperators.LetInputLandOnTheLastCommand.
TExecsList operator<<(const TExecsList& line, const std::string& text) {
  return with(line, TReadFromStr(text));
}

TExecsList operator<(const TExecsList& line, const std::string& path) {
  return with(line, TFromFile(path));
}

TExec operator>(const TExec& command, const std::string& path) {
  return with(command, TToFile(path, false));
}

TExec operator>>(const TExec& command, const std::string& path) {
  return with(command, TToFile(path, true));
}

TExecsList operator>(const TExecsList& line, const std::string& path) {
  return with(line, TToFile(path, false));
}

TExecsList operator>>(const TExecsList& line, const std::string& path) {
  return with(line, TToFile(path, true));
}

TExecsList operator|(const TExec& left, const TExec& right) {
  return connected(left, right);
}

// Deliberate: of the four pairings only this one lets the writer run beside the reader. Pinned by
// Pipeline.ClearsTheWaitOfASingleCommandBeforeALineOnly.
TExecsList operator|(const TExec& left, const TExecsList& right) {
  return connected(left & (fork_mode | path_mode), right);
}

TExecsList operator|(const TExecsList& left, const TExec& right) {
  return connected(left, right);
}

TExecsList operator|(const TExecsList& left, const TExecsList& right) {
  return connected(left, right);
}

TExecsList operator,(const TExec& left, const TExec& right) {
  return concatenated(left, right);
}

TExecsList operator,(const TExec& left, const TExecsList& right) {
  return concatenated(left, right);
}

TExecsList operator,(const TExecsList& left, const TExec& right) {
  return concatenated(left, right);
}

TExecsList operator,(const TExecsList& left, const TExecsList& right) {
  return concatenated(left, right);
}

}  // namespace frask::sys
