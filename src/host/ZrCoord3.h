#pragma once
// Node positions of a 3-D lattice. pos() is safe to call from several threads
// at once.
enum ZrCoordType { ZR_COORD_UNIFORM = 0, ZR_COORD_STACKED = 1, ZR_COORD_CURVILINEAR = 2 };

class ZrCoord3 {
public:
  explicit ZrCoord3(const int dims[3]);
  virtual ~ZrCoord3() = default;

  virtual ZrCoordType coordType() const = 0;
  const int* getDims() const { return dims; }
  // Box of all node positions: xmin, xmax, ymin, ymax, zmin, zmax.
  virtual void getBoundingBox(float box[6]) const = 0;
  // Position of node (i, j, k).
  virtual void pos(int i, int j, int k, float p[3]) const = 0;
  virtual ZrCoord3* duplicate() const = 0;
  // New dimensions: positions are reset as each kind says.
  virtual void resize(const int newDims[3]);

protected:
  int dims[3];
};
