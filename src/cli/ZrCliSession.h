#pragma once
// The objects of one zrreg run and the host commands that act on them. The
// script runner, the ports listing and the registration commands all work
// through this one interface, so anything a script can do the commands do the
// same way.
//
// Commands (one a line in a script; '#' starts a comment, quotes group words):
//   load NAME FILE [labels]        read an image into the pool as NAME
//   landmarks NAME FILE            read a landmark set (CSV)
//   vertices NAME FILE             read a vertex set (CSV or OFF)
//   create CLASS NAME              create a module of the package
//   connect MODULE PORT OBJECT     connect an input port to an object
//   set MODULE PORT VALUE...       set a port from text (values as 'ports' shows them)
//   hit MODULE PORT [BUTTON]       press a button
//   update MODULE                  let the module react to changed ports
//   compute MODULE                 run the module
//   save OBJECT FILE               write an image, landmark or vertex set
//   ports MODULE                   list the module's ports
//   list                           list the objects in the pool
//   echo TEXT                      print the text
#include "ZrImageIO.h"

#include <string>
#include <vector>

class ZrCompModule;
class ZrObject;
class ZrRegScalarField3;

class ZrCliSession {
public:
  ZrCliSession() = default;
  ~ZrCliSession();
  ZrCliSession(const ZrCliSession&) = delete;
  ZrCliSession& operator=(const ZrCliSession&) = delete;

  // Runs one command given as words; on failure returns false with the
  // reason in error.
  bool execute(const std::vector<std::string>& words, std::string& error);
  // Runs a whole script; stops at the first failing line and reports it as
  // FILE:LINE: reason.
  bool runScript(const std::string& path, std::string& error);

  // Splits a line into words: blanks separate, double quotes group, '#'
  // outside quotes ends the line.
  static bool splitLine(const std::string& line, std::vector<std::string>& words,
                        std::string& error);

  // Creates a module by class name and adds it to the pool under name.
  ZrCompModule* createModule(const std::string& className, const std::string& name,
                             std::string& error);
  ZrObject* find(const std::string& name) const;
  ZrCompModule* findModule(const std::string& name, std::string& error) const;
  bool setPort(ZrCompModule* module, const std::string& port, const std::string& value,
               std::string& error);
  // Reads an image and adds it to the pool as name.
  ZrObject* loadImage(const std::string& name, const std::string& path, bool labels,
                      std::string& error);
  // Writes an object to a file; an image in the voxel order that
  // fileOrderFor gives it.
  bool save(const std::string& object, const std::string& path, std::string& error);
  // The voxel order of the file that the image named name was loaded from,
  // or null.
  const ZrImageIO::FileOrder* fileOrder(const std::string& name) const;
  // The order to write f in: that of its own file if it was loaded, else
  // that of a loaded image on the same lattice (dimensions, box and
  // transform), such as the reference a module resampled onto; else null.
  const ZrImageIO::FileOrder* fileOrderFor(const ZrRegScalarField3* f) const;
  // Fires a module; compute false only updates. Returns false if the run was
  // interrupted (error says so).
  bool fire(ZrCompModule* module, bool compute, std::string& error);
  // Every port of the module, as the ports command prints it.
  static std::string describePorts(const ZrCompModule* module);

private:
  std::vector<ZrObject*> owned;
  struct Loaded {
    std::string name;
    const ZrObject* object;
    ZrImageIO::FileOrder order;
  };
  std::vector<Loaded> loaded;
};
