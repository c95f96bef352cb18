// Positions in the object lists of configurable objects: the accessor protocol (VirtualAccessor,
// its typed form over one container) and ObjectIterator, the value that owns an accessor.
#ifndef NORVANE_SRC_FWITERATOR_H_
#define NORVANE_SRC_FWITERATOR_H_

#include <memory>
#include <string>

#include "FWException.h"
#include "FWObject.h"

// A position with no container: every movement and access throws FWEInternal (source
// "src/FWIterator"). The typed accessor below overrides them; the dummy object member hands out
// bare accessors of this kind.
class VirtualAccessor {
 public:
  VirtualAccessor() = default;
  virtual ~VirtualAccessor() = default;
  // A copy at the same position; the caller owns it.
  virtual VirtualAccessor* Clone() const;
  virtual void Decrement();
  // Removes the current element from the container and moves to the element that followed it.
  virtual void Delete();
  // The current element; owned by the container.
  virtual FWObject* Get() const;
  virtual void Increment();
  // Inserts `object` before the current position and stands at it.
  virtual void Insert(FWObject* object);
  // True when both refer to the same container and position.
  virtual bool IsEqual(const VirtualAccessor* other) const;
  virtual bool IsTyped() const { return false; }

 protected:
  VirtualAccessor(const VirtualAccessor&) = default;
  VirtualAccessor& operator=(const VirtualAccessor&) = default;
};

// A position in a std::list of std::unique_ptr elements (for example SessionManager::PortList).
// The container is not owned and must outlive the accessor; it owns its elements, so Delete()
// destroys the element it removes, and Insert() hands the object to the container.
template <typename Container>
class TypedAccessor final : public VirtualAccessor {
 public:
  using Element = typename Container::value_type::element_type;
  using Position = typename Container::iterator;

  TypedAccessor(Container* container, Position position)
      : container_(container), position_(position) {}

  TypedAccessor* Clone() const override { return new TypedAccessor(*this); }
  void Decrement() override { --position_; }
  void Delete() override {
    CheckNotAtEnd("Delete");
    position_ = container_->erase(position_);
  }
  // The element stays owned by the container.
  FWObject* Get() const override {
    CheckNotAtEnd("Get");
    return position_->get();
  }
  void Increment() override { ++position_; }
  // Throws FWEBadCast("container member class") when `object` is not an Element; the caller then
  // keeps `object`. Otherwise the container owns it.
  void Insert(FWObject* object) override {
    Element* element = dynamic_cast<Element*>(object);
    if (element == nullptr)
      throw FWEBadCast("src/FWIterator", 55, std::string("container member class"));
    // The node is allocated before it adopts the object, so a failing allocation leaves the
    // object with the caller, as the bad cast does.
    Container node;
    node.emplace_back();
    node.front().reset(element);
    const Position inserted = node.begin();
    container_->splice(position_, node);
    position_ = inserted;
  }
  // Throws FWEBadCast("accessor type") when `other` is not an accessor of this kind.
  bool IsEqual(const VirtualAccessor* other) const override {
    const TypedAccessor* typed = dynamic_cast<const TypedAccessor*>(other);
    if (typed == nullptr) throw FWEBadCast("src/FWIterator", 60, std::string("accessor type"));
    return container_ == typed->container_ && position_ == typed->position_;
  }
  bool IsTyped() const override { return true; }

 private:
  TypedAccessor(const TypedAccessor&) = default;

  void CheckNotAtEnd(const char* operation) const {
    if (position_ == container_->end()) throw FWEAccessAtEnd(FW_HERE, std::string(operation));
  }

  Container* const container_;
  Position position_;
};

// A bidirectional element iterator: a value that owns one accessor and forwards to it. Copies
// clone the accessor.
class ObjectIterator {
 public:
  // Takes ownership of the accessor, which must not be null.
  explicit ObjectIterator(std::unique_ptr<VirtualAccessor> accessor);
  ObjectIterator(const ObjectIterator& other);
  ObjectIterator& operator=(const ObjectIterator& other);
  ObjectIterator(ObjectIterator&&) noexcept = default;
  ObjectIterator& operator=(ObjectIterator&&) noexcept = default;
  ~ObjectIterator() = default;

  FWObject* operator*() const { return accessor_->Get(); }
  ObjectIterator& operator++() {
    accessor_->Increment();
    return *this;
  }
  ObjectIterator& operator--() {
    accessor_->Decrement();
    return *this;
  }
  // Moves `count` elements forward (backward for a negative count).
  void Advance(long count);
  void Insert(FWObject* object) { accessor_->Insert(object); }
  void Delete() { accessor_->Delete(); }
  bool operator==(const ObjectIterator& other) const {
    return accessor_->IsEqual(other.accessor_.get());
  }
  bool operator!=(const ObjectIterator& other) const { return !(*this == other); }

 private:
  std::unique_ptr<VirtualAccessor> accessor_;
};

#endif  // NORVANE_SRC_FWITERATOR_H_
