#pragma once
// Dynamic array of the utility library. Capacity grows to the larger of the
// requested size and the truncation of 1.5 times the old capacity.
#include <algorithm>
#include <cassert>
#include <utility>

template <class T> class QbDArray {
public:
  QbDArray() = default;
  explicit QbDArray(int n) { resize(n); }
  QbDArray(const QbDArray& o) { *this = o; }
  QbDArray(QbDArray&& o) noexcept { swap(o); }
  ~QbDArray() { delete[] mData; }

  QbDArray& operator=(const QbDArray& o) {
    if (this != &o) {
      resize(o.mSize);
      for (int i = 0; i < mSize; i++)
        mData[i] = o.mData[i];
    }
    return *this;
  }
  QbDArray& operator=(QbDArray&& o) noexcept {
    if (this != &o) {
      QbDArray tmp;
      tmp.swap(o);
      swap(tmp);
    }
    return *this;
  }
  void swap(QbDArray& o) noexcept {
    std::swap(mData, o.mData);
    std::swap(mSize, o.mSize);
    std::swap(mCapacity, o.mCapacity);
  }

  int size() const { return mSize; }
  int capacity() const { return mCapacity; }
  bool isEmpty() const { return mSize == 0; }
  T* data() { return mData; }
  const T* data() const { return mData; }
  T& operator[](int i) {
    assert(i >= 0 && i < mSize);
    return mData[i];
  }
  const T& operator[](int i) const {
    assert(i >= 0 && i < mSize);
    return mData[i];
  }
  T& last() { return mData[mSize - 1]; }
  const T& last() const { return mData[mSize - 1]; }
  T* begin() { return mData; }
  T* end() { return mData + mSize; }
  const T* begin() const { return mData; }
  const T* end() const { return mData + mSize; }

  // New elements are value-initialised (0 for numbers and pointers).
  void resize(int n) {
    if (n < 0)
      n = 0;
    reserveForGrowth(n);
    for (int i = mSize; i < n; i++)
      mData[i] = T();
    mSize = n;
  }
  // Capacity for at least n elements, by the growth rule.
  void reserveForGrowth(int n) {
    if (n <= mCapacity)
      return;
    int grown = (int)(1.5 * mCapacity);
    reallocate(std::max(n, grown));
  }
  void append(const T& x) {
    T copy = x; // x may live in this array
    resize(mSize + 1);
    mData[mSize - 1] = std::move(copy);
  }
  // Inserts before pos; a position outside 0..size() is clamped to it.
  void insert(int pos, const T& x) {
    pos = std::max(0, std::min(pos, mSize));
    T copy = x; // x may live in this array
    resize(mSize + 1);
    for (int i = mSize - 1; i > pos; i--)
      mData[i] = std::move(mData[i - 1]);
    mData[pos] = std::move(copy);
  }
  void remove(int pos, int n = 1) {
    if (pos < 0 || n <= 0 || pos >= mSize)
      return;
    n = std::min(n, mSize - pos);
    for (int i = pos; i + n < mSize; i++)
      mData[i] = std::move(mData[i + n]);
    for (int i = mSize - n; i < mSize; i++)
      mData[i] = T();
    mSize -= n;
  }
  // Index of the first element equal to x, or -1.
  int index(const T& x) const {
    for (int i = 0; i < mSize; i++)
      if (mData[i] == x)
        return i;
    return -1;
  }
  // Size 0; the capacity stays.
  void clear() { resize(0); }
  // Size 0 and no storage.
  void clearAndFree() {
    delete[] mData;
    mData = nullptr;
    mSize = mCapacity = 0;
  }

private:
  void reallocate(int cap) {
    T* p = new T[cap];
    for (int i = 0; i < mSize; i++)
      p[i] = std::move(mData[i]);
    delete[] mData;
    mData = p;
    mCapacity = cap;
  }

  T* mData = nullptr;
  int mSize = 0;
  int mCapacity = 0;
};
