#pragma once
// Text files of transforms that other tools read: a plain 4x4 matrix and
// ITK's affine transform format. All matrices here are in the column-vector
// form (p' = A p), the transpose of the row-vector matrices the package uses.
#include <string>

class SbMatrixd;

class ZrTransformFiles {
public:
  // Four lines of four numbers.
  static std::string formatMatrix(const SbMatrixd& a);
  static bool writeMatrix(const SbMatrixd& a, const std::string& path, std::string& error);
  // Reads four rows of four numbers ('#' comments allowed).
  static bool readMatrix(const std::string& path, SbMatrixd& a, std::string& error);
  // An "AffineTransform_double_3_3" in ITK's text transform format: the
  // 3x3 part row by row, then the translation, with the centre at 0.
  static bool writeItkAffine(const SbMatrixd& a, const std::string& path, std::string& error);
  // An "AffineTransform_double_2_2", the transform of 2-D images, which ITK
  // places in the plane z = 0: the x and y rows of `a` for points of the
  // plane z = planeZ, whose z term goes into the translation.
  static bool writeItkAffine2D(const SbMatrixd& a, double planeZ, const std::string& path,
                               std::string& error);
  // Reads either form; a 2-D transform leaves z alone.
  static bool readItkAffine(const std::string& path, SbMatrixd& a, std::string& error);
};
