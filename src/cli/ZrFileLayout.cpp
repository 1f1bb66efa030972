#include "ZrFileLayout.h"

#include "SbMatrixd.h"

#include <itkImageIOBase.h>

#include <algorithm>
#include <cmath>
#include <cstring>

bool ZrImageIO::FileOrder::fits(const int d[3]) const {
  return d[0] == dims[0] && d[1] == dims[1] && d[2] == dims[2];
}

bool ZrFileLayout::set(const int fd[3], const float box[6], const SbMatrixd& m,
                       const ZrImageIO::FileOrder* order, std::string& error, std::string* notes) {
  for (int a = 0; a < 3; a++) {
    fieldDims[a] = fd[a];
    axisOf[a] = a;
    flip[a] = false;
  }
  if (order && order->fits(fd))
    for (int j = 0; j < 3; j++) {
      axisOf[j] = order->axisOf[j];
      flip[j] = order->flip[j];
    }
  // world = local * M (rows); as columns: world = A * local + t, A = M^T.
  double A[3][3], t[3];
  for (int r = 0; r < 3; r++) {
    t[r] = m[3][r];
    for (int c = 0; c < 3; c++)
      A[r][c] = m[c][r];
  }
  double voxel[3], sp[3], dir[3][3], first[3];
  for (int c = 0; c < 3; c++) {
    voxel[c] = fd[c] > 1 ? (double(box[2 * c + 1]) - box[2 * c]) / (fd[c] - 1) : 1.0;
    if (!(voxel[c] > 0))
      voxel[c] = 1.0;
    const double n = std::sqrt(A[0][c] * A[0][c] + A[1][c] * A[1][c] + A[2][c] * A[2][c]);
    if (!(n > 0)) {
      error = "the object's transform is singular and cannot be written into an image header";
      return false;
    }
    sp[c] = voxel[c] * n;
    for (int r = 0; r < 3; r++)
      dir[r][c] = A[r][c] / n;
  }
  // The node that comes first in the file: index 0 along each field axis,
  // or the last one along a reversed axis.
  double firstLocal[3];
  for (int c = 0; c < 3; c++)
    firstLocal[c] = box[2 * c];
  for (int j = 0; j < 3; j++)
    if (flip[j])
      firstLocal[axisOf[j]] = box[2 * axisOf[j]] + voxel[axisOf[j]] * (fd[axisOf[j]] - 1);
  for (int r = 0; r < 3; r++) {
    first[r] = t[r];
    for (int c = 0; c < 3; c++)
      first[r] += A[r][c] * firstLocal[c];
  }
  // Headers hold orthonormal directions; a shear is replaced by its nearest
  // orthonormal frame (Gram-Schmidt in the field's axis order).
  double shear = 0;
  for (int a = 0; a < 3; a++)
    for (int b = a + 1; b < 3; b++)
      shear = std::max(
          shear, std::fabs(dir[0][a] * dir[0][b] + dir[1][a] * dir[1][b] + dir[2][a] * dir[2][b]));
  if (shear > 1e-5) {
    for (int c = 1; c < 3; c++) {
      for (int p = 0; p < c; p++) {
        const double dot = dir[0][c] * dir[0][p] + dir[1][c] * dir[1][p] + dir[2][c] * dir[2][p];
        for (int r = 0; r < 3; r++)
          dir[r][c] -= dot * dir[r][p];
      }
      const double n =
          std::sqrt(dir[0][c] * dir[0][c] + dir[1][c] * dir[1][c] + dir[2][c] * dir[2][c]);
      for (int r = 0; r < 3; r++)
        dir[r][c] /= n;
    }
    if (notes)
      *notes = "the transform has a shear that an image header cannot hold; the header keeps "
               "its nearest orthogonal part (write a resampled image for an exact result)";
  }
  for (int j = 0; j < 3; j++) {
    const int a = axisOf[j];
    dims[j] = fd[a];
    spacing[j] = sp[a];
    for (int r = 0; r < 3; r++)
      direction[r][j] = flip[j] ? -dir[r][a] : dir[r][a];
  }
  for (int r = 0; r < 3; r++)
    origin[r] = first[r];

  dimension = 3;
  if (order && order->dimension == 2 && order->fits(fd) && dims[2] == 1) {
    // A 2-D file holds no z: the plane must still be z = 0 with its normal
    // along z, up to rounding.
    const double tol = 1e-6, zTol = 1e-3 * std::min(spacing[0], spacing[1]);
    const bool inPlane = std::fabs(direction[2][0]) < tol && std::fabs(direction[2][1]) < tol &&
                         std::fabs(direction[0][2]) < tol && std::fabs(direction[1][2]) < tol &&
                         std::fabs(origin[2]) <= zTol;
    if (inPlane) {
      dimension = 2;
    } else if (notes) {
      *notes += std::string(notes->empty() ? "" : "; ") +
                "the transform moves the 2-D image out of its plane, so it is written in three "
                "dimensions";
    }
  }
  return true;
}

bool ZrFileLayout::keepsFieldOrder() const {
  for (int j = 0; j < 3; j++)
    if (axisOf[j] != j || (flip[j] && fieldDims[j] > 1))
      return false;
  return true;
}

void ZrFileLayout::toFileOrder(const void* field, void* file, size_t nodeBytes) const {
  const size_t n = size_t(fieldDims[0]) * fieldDims[1] * fieldDims[2];
  if (keepsFieldOrder()) {
    std::memcpy(file, field, n * nodeBytes);
    return;
  }
  // Step in the field, in nodes, for one step along each file axis.
  const ptrdiff_t fieldStride[3] = {1, ptrdiff_t(fieldDims[0]),
                                    ptrdiff_t(fieldDims[0]) * fieldDims[1]};
  ptrdiff_t step[3], start = 0;
  for (int j = 0; j < 3; j++) {
    const int a = axisOf[j];
    step[j] = flip[j] ? -fieldStride[a] : fieldStride[a];
    if (flip[j])
      start += fieldStride[a] * (fieldDims[a] - 1);
  }
  const char* src = static_cast<const char*>(field);
  char* dst = static_cast<char*>(file);
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++) {
      ptrdiff_t at = start + k * step[2] + j * step[1];
      for (int i = 0; i < dims[0]; i++, at += step[0], dst += nodeBytes)
        std::memcpy(dst, src + size_t(at) * nodeBytes, nodeBytes);
    }
}

void ZrFileLayout::describe(itk::ImageIOBase* io) const {
  const unsigned nd = unsigned(dimension);
  io->SetNumberOfDimensions(nd);
  itk::ImageIORegion region(nd);
  for (unsigned a = 0; a < nd; a++) {
    io->SetDimensions(a, dims[a]);
    io->SetSpacing(a, spacing[a]);
    io->SetOrigin(a, origin[a]);
    std::vector<double> d;
    for (unsigned r = 0; r < nd; r++)
      d.push_back(direction[r][a]);
    io->SetDirection(a, d);
    region.SetIndex(a, 0);
    region.SetSize(a, dims[a]);
  }
  io->SetUseCompression(true);
  io->SetIORegion(region);
}
