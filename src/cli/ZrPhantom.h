#pragma once
// A synthetic 3-D head for the demonstration and the tests: nested ellipsoids
// in the manner of the classic tomography phantom (skull, brain, ventricles,
// small lesions) with soft edges and a smooth texture inside the brain, so
// that every region carries some gradient for a registration to follow.
//
// The phantom is defined in world millimetres on a head of about 140 x 184 x
// 180 mm centred at the origin; value() can be sampled anywhere, which lets a
// misaligned copy be made exactly, without interpolating a sampled image.
class ZrUniformScalarField3;

class ZrPhantom {
public:
  // Grey value at world point (x, y, z) in mm, between 0 and about 1.
  static double value(double x, double y, double z);
  // A uint8 image of n^3 voxels covering the cube of side `extent` mm centred
  // at the origin. If modelToWorld (4x4, row vectors, world = local * M) is
  // given, voxel local position p shows the phantom at p * M: the image is the
  // phantom seen through that transform, and M is what a registration onto
  // the untransformed phantom has to find.
  // shift (in voxels, per axis) moves the lattice inside the cube, so that a
  // model need not share the reference's voxel grid, as real scans do not.
  static ZrUniformScalarField3* make(int n, double extent,
                                     const double (*modelToWorld)[4] = nullptr,
                                     const double* shift = nullptr);
  // The smooth deformation used for the elastic demonstration: a displacement
  // of at most `amplitude` mm per axis, made of long sine waves.
  static void warp(double amplitude, const double p[3], double u[3]);
  // Like make(), but voxel position p shows the phantom at p + warp(p).
  static ZrUniformScalarField3* makeWarped(int n, double extent, double amplitude);
  // Region labels at a world point: 0 outside the head, otherwise 1 + the
  // index of the innermost ellipsoid that contains the point.
  static int label(double x, double y, double z);
  // A uint8 label image of the phantom, warped like makeWarped() when
  // amplitude is not 0.
  static ZrUniformScalarField3* makeLabels(int n, double extent, double amplitude);
};
