#pragma once
// The fast affine objective for a model on a uniform lattice. Instead of a
// field evaluator and an inside test per voxel, each reference row is clipped
// once against the model's voxel range, the model is interpolated from its
// raw voxels in double precision, and the samples go straight into the
// metric's accumulators. The walk is parallel over reference slices.
//
// Evaluation, gradient and the remaining fields are those of the general
// functional; only the walk differs. The two agree in the objective, not bit
// for bit: the positions here are double precision and the inside test is a
// half-voxel margin around the model's outer voxel centres.
#include "QbVec3i.h"
#include "RegAffineFunctional.h"
#include "SbMatrixd.h"

class RegAffineFunctionalUniform : public RegAffineFunctional {
public:
  // Lattice dimensions of the model.
  QbVec3i dims;
  // Local model position to model voxel coordinates, voxel i at coordinate i.
  SbMatrixd gridMatrix;
  // Threads of the parallel walk; 0 counts as 1.
  unsigned int numThreads = 1;
  // Reference voxels a thread gets at the least: a smaller lattice is walked
  // by fewer threads. A parallel region costs more than it saves on the
  // coarsest level of a head (30 000 voxels), and more on a busy machine,
  // where the team waits for each of its threads to get a core; the second
  // coarsest (116 000) took 10 % off the wall time of a whole 1 mm head run
  // with two threads on an idle machine. Only the summation order depends
  // on it.
  unsigned int minVoxelsPerThread = 1u << 15;
  // The model's bounding box (xmin, xmax, ymin, ymax, zmin, zmax); the
  // metric's sampling state points here.
  float modelBox[6] = {0, 0, 0, 0, 0, 0};

  // As the general functional, with clip 0.
  RegAffineFunctionalUniform(const QbDArray<ZrSpatialData*>& references,
                             QbDArray<ZrSpatialData*>& models, RegInterpolator interpolator,
                             RegParametricTransform* transform, RegMetric* metric,
                             RegOptimizerCallback* callback, int flatAxis,
                             unsigned int numThreads = 1);
  ~RegAffineFunctionalUniform() override;

  // Takes the model's dimensions and box, prepares `gridMatrix` and the
  // metric's sampling state. Runs at the start of every evaluation; the
  // field evaluator of the general functional is not needed here and is
  // left alone.
  void resetEval() override;
  // The parallel row walk over every reference into the one metric. 0.0 when
  // the transform is not affine, the model or a reference is not a scalar
  // field, or a voxel type is not one of the six.
  double evaluateNoClip() override;
};
