#pragma once
// zrreg affine: rigid or affine registration of a model image onto one to
// three reference images, through the package's affine registration module.
class SbMatrixd;
class ZrCompModule;

class ZrAffineCommand {
public:
  // Degrees of freedom without --dof, and without --dof when -o is written
  // (an image header holds no shear).
  static constexpr int kDefaultDof = 12;
  static constexpr int kHeaderDof = 9;
  // The finest level is optimised for references of at most this many voxels.
  static constexpr double kFinestLevelVoxels = 1 << 20;
  // The module's final step (a sixth of the finest voxel) is divided by this.
  static constexpr float kFinalStepDivisor = 8.0f;
  // The module's tolerance of the gradient search is multiplied by this.
  static constexpr float kToleranceFactor = 0.3f;
  // Limits of the histogram bins.
  static constexpr int kMinBins = 16, kMaxBins = 128;

  // A found transform that shrinks or stretches the model beyond these
  // factors along some direction ran away: no anatomy differs that much.
  static constexpr double kMaxSizeChange = 3.0;

  // argv[0] is "affine". Returns the process exit status: 0 success, 1 bad
  // input or failure, 2 bad usage, 3 the registration ran away (the outputs
  // are written, but the transform is almost surely wrong), 130 interrupted
  // (the result reached so far is written).
  static int run(int argc, char** argv);
  static void printHelp();
  // The settings the command gives a connected and updated module before the
  // user's --set: the stages up to `dof`, the final step and, from the
  // inputs, the levels to optimise, the histogram bins and, for two label
  // images, mutual information. `zrreg ports ZrAffineRegistration` shows the module with
  // them.
  static void applyDefaults(ZrCompModule* module, bool quiet, int dof = kDefaultDof);
  // The smallest and largest factor by which the linear part of `change`
  // (row-vector convention, as SbMatrixd) scales a length: its singular
  // values.
  static void sizeChange(const SbMatrixd& change, double& smallest, double& largest);
};
