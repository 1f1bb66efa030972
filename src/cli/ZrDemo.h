#pragma once
// zrreg demo: registers a synthetic head against a copy under a known rigid
// plus scale misalignment, with the module's defaults, and reports how well
// the known transform was found. Needs no input files.
class ZrDemo {
public:
  static int run(int argc, char** argv);
  static void printHelp();
};
