#pragma once
// zrreg phantom: writes the synthetic head and a copy under a given rigid plus
// scale transform, with that transform as a 4x4 matrix, for benchmarks and for
// trying other tools on a pair whose answer is known.
class ZrPhantomCommand {
public:
  static int run(int argc, char** argv);
  static void printHelp();
};
