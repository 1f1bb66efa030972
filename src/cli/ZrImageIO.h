#pragma once
// Reading and writing image files for zrreg through ITK's image I/O factories
// (NIfTI, NRRD, MetaImage, TIFF, ... whatever the installed ITK reads).
//
// Geometry: a file's origin, spacing and direction become a uniform field whose
// transform is a proper rotation. The voxel axes are permuted and flipped
// exactly (no interpolation) so that they point along the world axes they are
// nearest to; only the residual rotation stays in the object's transform, and
// for an axis-aligned file there is none. Writing puts the field's geometry,
// transform included, back into the header, so a read/write round trip keeps
// every voxel at its world position.
//
// Files written from an input keep that input's voxel order and dimension:
// reading notes how the axes were permuted and flipped (FileOrder), and a
// write given that order undoes it, so a 2-D file stored R,A,S comes back
// 2-D and R,A,S. Tools that compare voxel arrays then see what they expect.
#include <cstddef>
#include <string>

class ZrRegScalarField3;

class ZrImageIO {
public:
  // The voxel order of a file relative to the field read from it: file
  // voxel axis j runs along field axis axisOf[j], against it if flip[j].
  // dims are the field's dimensions, so that the order is applied only to a
  // field on a lattice of that shape.
  struct FileOrder {
    int dimension = 3; // 2 for a file of two dimensions
    int axisOf[3] = {0, 1, 2};
    bool flip[3] = {false, false, false};
    int dims[3] = {0, 0, 0};
    // True when a field of these dimensions can be written in this order.
    bool fits(const int fieldDims[3]) const;
  };

  struct ReadOptions {
    // Make a label field even if the file does not say it holds labels.
    bool asLabels = false;
  };
  struct ReadInfo {
    // The file declares label data (a NIfTI label intent). Written files
    // carry no intent: ITK's NIfTI writer does not keep one.
    bool labelIntent = false;
    // Voxel type of the file as ITK names it, and notes on conversions made.
    std::string fileType;
    std::string notice;
    // How the voxels were reordered; hand it to write() for outputs on this
    // image's lattice.
    FileOrder order;
  };

  // The field (owned by the caller), or null with a one-line reason in error.
  static ZrRegScalarField3* read(const std::string& path, const ReadOptions& options,
                                 ReadInfo* info, std::string& error);

  // Writes the field to path (format from the file name). The file appears
  // complete or not at all: the data goes to a temporary name first and is
  // renamed into place. notice receives remarks, e.g. when the transform has a
  // shear that no image header can hold. With an order that fits the field,
  // the voxels go out in that file order and dimension; without one (or one
  // for another shape) in the field's own order, three-dimensional.
  static bool write(const ZrRegScalarField3* field, const std::string& path, std::string& error,
                    std::string* notice = nullptr, const FileOrder* order = nullptr);

  // Checks that a field can go into a registration: no NaN or infinite
  // voxels, not constant, not flat on more than one axis. role names the
  // input in the message ("reference", "model").
  static bool checkUsable(const ZrRegScalarField3* field, const char* role, std::string& error);
  // Only the first of those: no NaN or infinite voxels.
  static bool checkFinite(const ZrRegScalarField3* field, const char* role, std::string& error);

  // Reads the file just written back and compares its bytes of voxels with
  // data. Some of ITK's writers only print an error when the disk is full or
  // a write fails, so this is how a short or broken file is caught before it
  // replaces anything. A check that cannot get the memory is skipped.
  static bool writtenIntact(const std::string& file, const void* data, size_t bytes,
                            std::string& why);

  // True when ITK has an image I/O that can write this file name.
  static bool canWrite(const std::string& path);
};
