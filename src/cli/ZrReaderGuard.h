#pragma once
// Choosing and vetting ITK's image reader for a file.
//
// ITK picks a reader by asking each installed one whether it can read the
// file, so a corrupt file named .nii.gz can end up in the PNG reader, which
// aborts the process on a bad chunk. createReader therefore asks only the
// readers that claim the file's extension; a file whose extension no reader
// claims (a DICOM slice without one, say) still goes through the full search.
//
// Some readers of the installed ITK crash on corrupt files (MetaImage divides
// by a zero it read from the header, TIFF copies past a strip buffer, PNG
// aborts). survives reads the whole file once in a child process first, so
// that such a file costs the user an error message instead of the run.
// MetaImage headers are checked as text before that, since their reader can
// also loop for hours on an absurd dimension count. The
// readers of NIfTI, NRRD and VTK files are trusted and skip the probe: they
// hold the large volumes, where a second read would cost seconds.
#include <itkImageIOBase.h>

#include <string>

class ZrReaderGuard {
public:
  // The reader for path, or null when none can read it; error then says why.
  // ITK exceptions thrown while looking at the file become the error too.
  static itk::ImageIOBase::Pointer createReader(const std::string& path, std::string& error);

  // True when reading path with io (header and all voxels) completes in a
  // child process, or when io is a trusted reader. False, with a message,
  // when the child dies or a MetaImage header is malformed: the parent then
  // never reads that file.
  static bool survives(const std::string& path, itk::ImageIOBase* io, std::string& error);
};
