// SPDX-License-Identifier: Apache-2.0
// An array from malloc that tells when there is no memory: the host kit neither throws nor needs the C++ runtime, so
// that a host in C can link it.
#ifndef HOST_ARRAY_H
#define HOST_ARRAY_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

namespace kdzk_host {

template <class T>
class Array {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  Array() = default;
  Array(const Array&) = delete;
  Array& operator=(const Array&) = delete;
  ~Array() { std::free(data_); }

  // Makes room for `capacity` elements in all, and keeps those that are there. False if there is no memory.
  bool reserve(size_t capacity) {
    if (capacity <= capacity_) return true;
    void* const grown = std::realloc(data_, capacity * sizeof(T));
    if (grown == nullptr) return false;
    data_ = static_cast<T*>(grown);
    capacity_ = capacity;
    return true;
  }

  // `size` elements, all `value`.
  bool assign(size_t size, const T& value) {
    if (!reserve(size)) return false;
    size_ = size;
    for (size_t i = 0; i < size; i++) data_[i] = value;
    return true;
  }

  bool copy(const Array& other) {
    if (!reserve(other.size_)) return false;
    size_ = other.size_;
    if (size_ > 0) std::memcpy(data_, other.data_, size_ * sizeof(T));
    return true;
  }

  bool push(const T& value) {
    const T kept = value;  // may lie in the array that grows
    if (size_ == capacity_ && !reserve(capacity_ < 16 ? 16 : 2 * capacity_)) return false;
    data_[size_++] = kept;
    return true;
  }

  void shrink(size_t size) { size_ = size; }
  void extend(size_t size) { size_ = size; }  // within the capacity, by elements without a value
  void clear() { size_ = 0; }
  void swap(Array& other) {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }

 private:
  T* data_ = nullptr;
  size_t size_ = 0, capacity_ = 0;
};

}  // namespace kdzk_host

#endif
