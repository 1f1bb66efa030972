#pragma once
// Text formats of the point data zrreg reads and writes.
//
// Landmark sets: CSV, one row per marker with x, y, z of each set in turn
// (3 numbers per set); commas, semicolons, tabs or spaces separate the
// numbers; a first row that is not numeric is a header; '#' starts a comment.
// Vertex sets: the same CSV with three numbers per row, or an OFF mesh
// (vertices and triangles; other polygons are split into triangles).
#include <string>

class ZrLandmarkSet;
class ZrVertexSet;

class ZrPointSetIO {
public:
  // Owned by the caller; null with a reason in error.
  static ZrLandmarkSet* readLandmarks(const std::string& path, std::string& error);
  static bool writeLandmarks(const ZrLandmarkSet* set, const std::string& path, std::string& error);
  static ZrVertexSet* readVertices(const std::string& path, std::string& error);
  static bool writeVertices(const ZrVertexSet* set, const std::string& path, std::string& error);
};
