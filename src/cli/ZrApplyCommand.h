#pragma once
// zrreg apply: moves an image (a label atlas, another contrast) by the
// transforms registrations found, onto a reference's grid or, for affine
// transforms, on its own grid with only its header changed.
class ZrApplyCommand {
public:
  // argv[0] is "apply". Returns the process exit status: 0 success, 1 bad
  // input or failure, 2 bad usage, 130 interrupted (nothing is written).
  static int run(int argc, char** argv);
  static void printHelp();
};
