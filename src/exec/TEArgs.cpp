#include "exec/TEArgs.h"

#include <utility>

namespace frask {

template std::string xtos<unsigned long>(unsigned long);

namespace sys {
namespace {

constexpr unsigned long kMaxArguments = 100;
constexpr unsigned long kUsualArguments = 10;

}  // namespace

// Built ahead of every object without a priority, wherever the linker puts that one.
[[gnu::init_priority(101)]] const std::string TEArgs::exceed_lim =
    "The number of arguments has exceeded the defined limits";
[[gnu::init_priority(101)]] const std::string TEArgs::wrong_index = "Wrong index";

TEArgs::TEArgs() : rep_(new TRep) {
  rep_->arguments.reserve(kUsualArguments);
}

void TEArgs::push_back(std::string argument) {
  if (size() + 1 > kMaxArguments) throwTOverflow(1);
  detach();
  rep_->arguments.push_back(std::move(argument));
}

void TEArgs::push_back(const TEArgs& other) {
  if (size() + other.size() > kMaxArguments) throwTOverflow(other.size());
  const TEArgs source(other);  // should `other` be this object, it is shared now and detached from
  detach();
  const std::vector<std::string>& added = source.rep_->arguments;
  rep_->arguments.insert(rep_->arguments.end(), added.begin(), added.end());
}

const std::string& TEArgs::operator[](unsigned long index) const {
  if (index >= size()) throwTOutOfRange(index);
  return rep_->arguments[index];
}

void TEArgs::throwTOutOfRange(unsigned long index) const {
  throw TOutOfRange(*this, index);
}

void TEArgs::throwTOverflow(unsigned long added) const {
  throw TOverflow(*this, added);
}

void TEArgs::detach() {
  if (rep_.count() > 1) rep_ = Handle<TRep>(new TRep(*rep_));
}

TEArgs::TEArgsError::TEArgsError(const TEArgs& args, const std::string& message)
    : TSysErr(message), args_(args) {}

TEArgs::TEArgsError::~TEArgsError() = default;

TEArgs::TOutOfRange::TOutOfRange(const TEArgs& args, unsigned long index)
    : TEArgsError(args, wrong_index + " (index = " + xtos(index) + ")"), index_(index) {}

TEArgs::TOutOfRange::~TOutOfRange() = default;

TEArgs::TOverflow::TOverflow(const TEArgs& args, unsigned long added)
    : TEArgsError(args, exceed_lim + " (arguments number = " + xtos(args.size()) +
                            ", add. arguments number = " + xtos(added) +
                            ", max = " + xtos(kMaxArguments) + ")") {}

TEArgs::TOverflow::~TOverflow() = default;

}  // namespace sys
}  // namespace frask
