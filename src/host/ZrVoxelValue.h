#pragma once
// Per voxel type arithmetic of the field evaluators: the type in which values
// of T are combined (float, or double where float would lose digits of the
// type), and the conversion of a combined value back to T: rounded to nearest
// and clamped to the type's range for integer types, NaN giving 0.
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

template <class T> struct ZrVoxelValue {
  typedef
      typename std::conditional<std::is_same<T, double>::value || std::is_same<T, int32_t>::value,
                                double, float>::type Acc;

  static T fromAcc(Acc v) {
    if constexpr (std::is_floating_point<T>::value) {
      return T(v);
    } else {
      if (!(v == v))
        return T(0);
      const Acc r = std::nearbyint(v);
      if (r <= Acc(std::numeric_limits<T>::lowest()))
        return std::numeric_limits<T>::lowest();
      if (r >= Acc(std::numeric_limits<T>::max()))
        return std::numeric_limits<T>::max();
      return T(r);
    }
  }
};

// Output of an evaluation kernel: float for eval(), the voxel type for
// evalNative().
template <class T, bool Native> struct ZrVoxelOut {
  typedef typename std::conditional<Native, T, float>::type Type;
  static Type put(typename ZrVoxelValue<T>::Acc v) {
    if constexpr (Native)
      return ZrVoxelValue<T>::fromAcc(v);
    else
      return float(v);
  }
};
