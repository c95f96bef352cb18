#include "FWIterator.h"

#include <cassert>

namespace {

// The lines that the bare accessor's failures have always carried.
constexpr unsigned kDecrementLine = 30;
constexpr unsigned kDeleteLine = 31;
constexpr unsigned kGetLine = 32;
constexpr unsigned kIncrementLine = 33;
constexpr unsigned kInsertLine = 34;
constexpr unsigned kIsEqualLine = 35;
constexpr const char* kSource = "src/FWIterator";

}  // namespace

VirtualAccessor* VirtualAccessor::Clone() const { return new VirtualAccessor(*this); }

void VirtualAccessor::Decrement() { throw FWEInternal(kSource, kDecrementLine); }

void VirtualAccessor::Delete() { throw FWEInternal(kSource, kDeleteLine); }

FWObject* VirtualAccessor::Get() const { throw FWEInternal(kSource, kGetLine); }

void VirtualAccessor::Increment() { throw FWEInternal(kSource, kIncrementLine); }

void VirtualAccessor::Insert(FWObject* /*object*/) { throw FWEInternal(kSource, kInsertLine); }

bool VirtualAccessor::IsEqual(const VirtualAccessor* /*other*/) const {
  throw FWEInternal(kSource, kIsEqualLine);
}

ObjectIterator::ObjectIterator(std::unique_ptr<VirtualAccessor> accessor)
    : accessor_(std::move(accessor)) {
  assert(accessor_ != nullptr && "an iterator needs an accessor");
}

ObjectIterator::ObjectIterator(const ObjectIterator& other) : accessor_(other.accessor_->Clone()) {}

ObjectIterator& ObjectIterator::operator=(const ObjectIterator& other) {
  if (&other != this) accessor_.reset(other.accessor_->Clone());
  return *this;
}

void ObjectIterator::Advance(long count) {
  for (; count > 0; --count) accessor_->Increment();
  for (; count < 0; ++count) accessor_->Decrement();
}
