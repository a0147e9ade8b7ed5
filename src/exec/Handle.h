/**
 * @file
 * Shared ownership by reference counting.
 */
#ifndef FRASK_EXEC_HANDLE_H
#define FRASK_EXEC_HANDLE_H

#include <memory>
#include <utility>

#include "log/api.h"

namespace frask {

/**
 * One of several owners of an object that was made with new, or of none; the last one deletes it.
 *
 * The count is a plain integer, not an atomic one: a handle and its copies stay in one thread. Even
 * an empty handle allocates its count, so making one may throw std::bad_alloc; copying and
 * assigning never throw. As with a pointer, a const handle gives access to an object that is not
 * const.
 */
template <class T>
class FRASK_API Handle {
 public:
  Handle() : Handle(nullptr) {}

  /** Takes the object over, even when this throws. */
  explicit Handle(T* object) {
    std::unique_ptr<T> owner(object);
    count_ = new unsigned int(1);
    object_ = owner.release();
  }

  ///@{
  /** One owner more; the handle that is assigned to gives up what it had. */
  Handle(const Handle& other) noexcept : object_(other.object_), count_(other.count_) { ++*count_; }

  Handle& operator=(Handle other) noexcept {
    std::swap(object_, other.object_);
    std::swap(count_, other.count_);
    return *this;
  }
  ///@}

  ~Handle() {
    if (--*count_ == 0) destroy();  // NOLINT(clang-analyzer-cplusplus.NewDelete): it loses count
  }

  ///@{
  /** The object, or null; whether there is one. */
  T* get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }
  ///@}

  /** How many handles share the object, this one included. */
  unsigned int count() const noexcept { return *count_; }

 private:
  // Kept out of line: GCC 12 takes the copies of a handle that it has inlined for uses of a count
  // that was deleted (-Wuse-after-free).
  [[gnu::noinline]] void destroy() noexcept {
    delete object_;
    delete count_;
  }

  T* object_;
  unsigned int* count_;
};

}  // namespace frask

#endif
