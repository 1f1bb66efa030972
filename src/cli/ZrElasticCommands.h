#pragma once
// zrreg's commands for free-form deformations:
//   elastic        B-spline registration of a model onto a reference
//   apply-grid     warps an image by a saved control grid
//   deform-points  moves points or a mesh by a saved vector field
// Each returns the process exit status (0, 1 failure, 2 usage, 130 stopped).
class ZrCompModule;

class ZrElasticCommands {
public:
  static int runElastic(int argc, char** argv);
  // The settings `zrreg elastic` gives the module once its inputs are
  // connected, before the user's --set; `zrreg ports` shows them too.
  static void applyDefaults(ZrCompModule* module, bool quiet);
  static int runApplyGrid(int argc, char** argv);
  static int runDeformPoints(int argc, char** argv);
};
