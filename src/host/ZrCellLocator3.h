#pragma once
// Point location in a curvilinear grid: which cell holds a point, and where in
// the cell. A cell is the trilinear image of the unit cube spanned by its
// eight corner nodes; on an axis of one node the cell is flat along it and the
// grid is a sheet (or a curve), which the search handles as well.
//
// The search uses a uniform grid of buckets over the box of the nodes. Each
// bucket lists the cells whose corner box overlaps it, so that one point costs
// a few box tests and a Newton inversion of the cell's trilinear map, whatever
// the size of the grid. Before the buckets a caller's hint is tried: the cell
// of the previous point and a short walk from it, which finds runs of nearby
// points (rows of a lattice, neighbouring vertices) at once.
//
// The locator reads the node positions it was built on and does not copy
// them: they must stay in place while it lives. After building it is read
// only, so several threads may search at once, each with its own hint.
#include <cstddef>
#include <cstdint>
#include <vector>

class ZrCellLocator3 {
public:
  // positions: 3 floats per node, x index fastest, dims[0]*dims[1]*dims[2]
  // nodes.
  ZrCellLocator3(const int dims[3], const float* positions);

  // Box of the node positions: xmin, xmax, ymin, ymax, zmin, zmax.
  const float* getBoundingBox() const { return box; }
  const int* getDims() const { return dims; }
  // Buckets per axis (for tests and statistics).
  const int* getBucketCounts() const { return nb; }
  size_t numBucketEntries() const { return items.size(); }

  // Finds a cell that holds p. On success returns true, the lower corner of
  // the cell in cell and p's local coordinates, each in [0, 1], in uvw; they
  // are 0 on an axis of one node. hint is the cell to try first; it is set to
  // the cell found, and an entry out of range (e.g. -1) means no hint.
  // False when p lies in no cell: outside the box, or in a part of the box
  // that the grid does not cover.
  bool locate(const float p[3], int cell[3], float uvw[3], int hint[3]) const;

  // Local coordinates of p under the trilinear map of the cell with lower
  // corner c, by Newton's method (least squares on a flat grid). True when
  // the iteration converged to a point of the map within a small distance of
  // p; the coordinates may lie outside [0, 1], which means p is outside that
  // cell.
  bool invert(const int c[3], const float p[3], double uvw[3]) const;

private:
  size_t node(int i, int j, int k) const {
    return size_t(i) + size_t(dims[0]) * (size_t(j) + size_t(dims[1]) * size_t(k));
  }
  // Corner box of the cell whose lower corner is node n0.
  void cellBox(size_t n0, float b[6]) const;
  bool invertAt(size_t n0, const float p[3], double uvw[3]) const;
  int bucketCoord(int axis, float x) const;

  int dims[3];
  int cells[3];   // cells per axis: dims - 1, and 1 on an axis of one node
  size_t step[3]; // node offsets to the upper corner: 0 on an axis of one node
  int active[3];  // the axes of more than one node
  int numActive;
  const float* pos; // not owned
  float box[6];
  int nb[3];
  double bucketInv[3];
  std::vector<size_t> offsets; // per bucket, into items; one more at the end
  // Cells by the node index of their lower corner, which addresses their
  // corners without a division (grids up to 2^32 nodes).
  std::vector<uint32_t> items;
};
