#pragma once
// Mutual information of reference and model grey values, from a dense joint
// histogram with soft bilinear binning: every sample is shared among the four
// bins around its position, so the histogram entries are real numbers that
// add up to numInside. The two concrete forms differ only in getResult():
// normalised mutual information and plain mutual information.
#include "QbDArray.h"
#include "QbPrimType.h"
#include "RegMetric.h"

#include <vector>

class RegMutualInformation : public RegMetric {
public:
  // Voxel types of the two fields; they decide whether the bin rules for
  // integer data apply.
  QbPrimType refType, modelType;
  // numBinsRef * numBinsMod entries; entry (i, j) at i * numBinsMod + j, with
  // i the reference bin.
  QbDArray<double> histogram;
  // Value to bin: t = (value - min) * scale.
  double refMin = 0.0, refScale = 1.0, modelMin = 0.0, modelScale = 1.0;
  // The ranges as given, rounded for integer types.
  double refMax = 0.0, modelMax = 0.0;
  int numBinsRef = 0, numBinsMod = 0;
  // Uniform walks sample the model by partial volume (each of the eight
  // voxels around a sample adds its own value with its trilinear weight)
  // instead of interpolating it: for label models, where a value between two
  // labels is neither.
  bool partialVolume = false;

  // Fixes the binning of both axes (reduced for integer data so that a bin
  // holds a whole number of grey values), adds one bin per axis for the shared
  // weight above the top of the range, reports the counts and zeroes the
  // histogram.
  RegMutualInformation(QbPrimType refType, QbPrimType modelType, double refMin, double refMax,
                       double modelMin, double modelMax, int refBins, int modelBins,
                       double maxCoverage);
  ~RegMutualInformation() override;

  // The binning of one axis: bin count, rounded minimum and scale for the
  // range [min, max] of data of voxel type `type`.
  static void init1D(QbPrimType type, int& bins, double& min, double& scale, double max);

  void reset() override;
  void getState(RegMetric* other) const override;
  // Defined below, in the header, so that walks which bind these calls at
  // compile time can inline them.
  void increment(double ref, double model) override;
  void decrement(double ref, double model) override;
  // increment(ref, model) with the reference's bin and weights from binOf()
  // given, for walks that add one reference value with several model values.
  inline void incrementBinned(int i, double a0, double a1, double model) {
    numTotal++;
    int j;
    double b0, b1;
    binOf(model, modelMin, modelScale, numBinsMod, j, b0, b1);
    addWeights(histogram.data(), numBinsMod, i, j, a0, a1, b0, b1, 1.0);
    numInside++;
  }
  // decrement(refOut, modelOut) followed by increment(refIn, modelIn), with
  // the same result to the last bit; the reference bin is found once when the
  // two reference values are equal.
  void replace(double refOut, double modelOut, double refIn, double modelIn);
  // Entropies of the two marginal distributions (natural logarithm).
  void getMarginalEntropies(double& ref, double& model) override;
  // Entropy of the joint distribution (natural logarithm).
  void getJointEntropy(double& h) const;

  // The sums behind the entropies of one state: s log s summed over the
  // entries of the joint histogram, over its row sums and over its column
  // sums (positive ones only), and the row and column sums themselves. With
  // n samples an entropy is log n - sum / n.
  struct EntropySums {
    double joint = 0.0, ref = 0.0, model = 0.0;
    std::vector<double> rows, cols;
    // Scratch of getResultNear().
    std::vector<double> rowChange, colChange;
  };
  void getEntropySums(EntropySums& s) const;
  // getResult() of this state, found from a state `base` of the same binning
  // and its sums `s`: only the entries where the two histograms differ are
  // looked at closely, so a probe that changed a small part of a large
  // histogram pays for the logarithms of that part only. Equal to getResult()
  // up to rounding.
  double getResultNear(const RegMutualInformation& base, EntropySums& s);

  // Bin of one value on one axis of n bins and the weights of that bin and
  // the next. Values below the range put their full weight into bin 0, values
  // at or above the bin n - 1 into bin n - 1; a value exactly at the top of
  // the range keeps its full weight in bin n - 2.
  static inline void binOf(double value, double min, double scale, int n, int& bin, double& w0,
                           double& w1) {
    double t = (value - min) * scale;
    // Keep the truncation below in the range of int. Every t at or above n
    // ends in the last bin, every t at or below -1 (and NaN) in the first, so
    // the clamp changes no result.
    if (t > (double)n)
      t = (double)n;
    else if (!(t > -1.0))
      t = -1.0;
    int i = (int)t;
    double f = t - (double)i;
    if (f < 0.0)
      f = 0.0;
    if (i < 0) {
      i = 0;
      w0 = 1.0;
      w1 = 0.0;
    } else {
      w0 = 1.0 - f;
      w1 = f;
    }
    if (i >= n - 1) {
      i = n - 2;
      w0 = 0.0;
      w1 = 1.0;
    }
    bin = i;
  }

  // Adds (sign +1) or removes (sign -1) one sample pair in the raw histogram
  // `hist` of nRef x nMod bins. The parallel evaluators call this on their
  // private copies with the metric's bin parameters.
  static inline void addToHistogram(double* hist, double ref, double model, double refMin,
                                    double refScale, int nRef, double modelMin, double modelScale,
                                    int nMod, double sign) {
    int i, j;
    double a0, a1, b0, b1;
    binOf(ref, refMin, refScale, nRef, i, a0, a1);
    binOf(model, modelMin, modelScale, nMod, j, b0, b1);
    addWeights(hist, nMod, i, j, a0, a1, b0, b1, sign);
  }

  // Adds sign times the four products of the bin weights around (i, j).
  static inline void addWeights(double* hist, int nMod, int i, int j, double a0, double a1,
                                double b0, double b1, double sign) {
    double* row = hist + (size_t)i * nMod + j;
    row[0] += sign * (a0 * b0);
    row[nMod] += sign * (a1 * b0);
    row[1] += sign * (a0 * b1);
    row[nMod + 1] += sign * (a1 * b1);
  }

protected:
  // Scratch for the column sums of getMarginalEntropies(), sized on first use.
  QbDArray<double> columnSums;
  // Copy for clone(): counts, maxCoverage, types, bin parameters and the
  // histogram; no message, no bin rules, and the sampling state is not
  // copied.
  RegMutualInformation(const RegMutualInformation& other);
  // Overlap factor: 1, or the covered fraction times 5 / maxCoverage when it
  // falls below a fifth of maxCoverage.
  double overlapWeight() const;
  // The metric's value from the three entropies; numInside is above 0.
  virtual double resultOf(double hRef, double hModel, double hJoint) const = 0;
};

inline void RegMutualInformation::increment(double ref, double model) {
  numTotal++;
  addToHistogram(histogram.data(), ref, model, refMin, refScale, numBinsRef, modelMin, modelScale,
                 numBinsMod, 1.0);
  numInside++;
}

inline void RegMutualInformation::decrement(double ref, double model) {
  numTotal--;
  addToHistogram(histogram.data(), ref, model, refMin, refScale, numBinsRef, modelMin, modelScale,
                 numBinsMod, -1.0);
  numInside--;
}

inline void RegMutualInformation::replace(double refOut, double modelOut, double refIn,
                                          double modelIn) {
  int i, j;
  double a0, a1, b0, b1;
  binOf(refOut, refMin, refScale, numBinsRef, i, a0, a1);
  binOf(modelOut, modelMin, modelScale, numBinsMod, j, b0, b1);
  addWeights(histogram.data(), numBinsMod, i, j, a0, a1, b0, b1, -1.0);
  if (!(refIn == refOut))
    binOf(refIn, refMin, refScale, numBinsRef, i, a0, a1);
  binOf(modelIn, modelMin, modelScale, numBinsMod, j, b0, b1);
  addWeights(histogram.data(), numBinsMod, i, j, a0, a1, b0, b1, 1.0);
}
