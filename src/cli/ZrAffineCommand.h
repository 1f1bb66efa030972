#pragma once
// zrreg affine: rigid or affine registration of a model image onto one to
// three reference images, through the package's affine registration module.
class ZrCompModule;

class ZrAffineCommand {
public:
  // argv[0] is "affine". Returns the process exit status: 0 success, 1 bad
  // input or failure, 2 bad usage, 130 interrupted (the result reached so far
  // is written).
  static int run(int argc, char** argv);
  static void printHelp();
  // The settings the command gives a fresh module before the user's --set:
  // `zrreg ports ZrAffineRegistration` shows the module with them.
  static void applyDefaults(ZrCompModule* module, bool quiet);
};
