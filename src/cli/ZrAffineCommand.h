#pragma once
// zrreg affine: rigid or affine registration of a model image onto one to
// three reference images, through the package's affine registration module.
class ZrCompModule;
class ZrRegScalarField3;

class ZrAffineCommand {
public:
  // Degrees of freedom without --dof.
  static constexpr int kDefaultDof = 9;
  // The finest level is optimised for references of at most this many voxels.
  static constexpr double kFinestLevelVoxels = 1 << 20;
  // Limits of the histogram bins.
  static constexpr int kMinBins = 16, kMaxBins = 128;

  // argv[0] is "affine". Returns the process exit status: 0 success, 1 bad
  // input or failure, 2 bad usage, 130 interrupted (the result reached so far
  // is written).
  static int run(int argc, char** argv);
  static void printHelp();
  // zrreg's settings of a connected and updated affine registration module:
  // the stages up to `dof`, the levels to optimise, the histogram bins and,
  // for two label images, mutual information. --set comes after them.
  static void applyDefaults(ZrCompModule* module, const ZrRegScalarField3* reference,
                            bool labelPair, int dof, bool quiet);
};
