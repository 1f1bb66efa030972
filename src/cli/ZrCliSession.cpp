#include "ZrCliSession.h"

#include "QbTypeInfo.h"
#include "SbMatrixd.h"
#include "ZrCompModule.h"
#include "ZrConnection.h"
#include "ZrImageIO.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrPointSetIO.h"
#include "ZrPort.h"
#include "ZrRegScalarField3.h"
#include "ZrRunContext.h"
#include "ZrVertexSet.h"
#include "ZrWorkArea.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

ZrCliSession::~ZrCliSession() { ZrObjectPool::getTheObjectPool()->clear(); }

bool ZrCliSession::splitLine(const std::string& line, std::vector<std::string>& words,
                             std::string& error) {
  words.clear();
  std::string cur;
  bool inWord = false, quoted = false;
  for (size_t i = 0; i < line.size(); i++) {
    char c = line[i];
    if (quoted) {
      if (c == '"')
        quoted = false;
      else
        cur += c;
      continue;
    }
    if (c == '#')
      break;
    if (c == '"') {
      quoted = inWord = true;
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      if (inWord)
        words.push_back(cur);
      cur.clear();
      inWord = false;
      continue;
    }
    cur += c;
    inWord = true;
  }
  if (quoted) {
    error = "unterminated quote";
    return false;
  }
  if (inWord)
    words.push_back(cur);
  return true;
}

ZrObject* ZrCliSession::find(const std::string& name) const {
  return ZrObjectPool::getTheObjectPool()->findObject(name.c_str());
}

ZrCompModule* ZrCliSession::findModule(const std::string& name, std::string& error) const {
  ZrObject* obj = find(name);
  if (!obj) {
    error = "no object named '" + name + "'";
    return nullptr;
  }
  ZrCompModule* m = dynamic_cast<ZrCompModule*>(obj);
  if (!m)
    error = "'" + name + "' is a data object, not a module";
  return m;
}

ZrCompModule* ZrCliSession::createModule(const std::string& className, const std::string& name,
                                         std::string& error) {
  const QbTypeInfo* type = QbTypeInfo::fromName(className.c_str());
  const QbTypeInfo* moduleType = ZrCompModule::getClassTypeId();
  if (!type || !type->isOfType(moduleType) || !type->canCreate()) {
    error = "unknown module class '" + className + "'; known:";
    for (const QbTypeInfo* t : QbTypeInfo::allTypes())
      if (t != moduleType && t->isOfType(moduleType) && t->canCreate())
        error += std::string(" ") + t->getName();
    return nullptr;
  }
  ZrCompModule* m = dynamic_cast<ZrCompModule*>(type->createInstance());
  if (!m) {
    error = "cannot create a module of class '" + className + "'";
    return nullptr;
  }
  m->setName(name.empty() ? className.c_str() : name.c_str());
  ZrObjectPool::getTheObjectPool()->addObject(m);
  return m;
}

bool ZrCliSession::setPort(ZrCompModule* module, const std::string& portName,
                           const std::string& value, std::string& error) {
  ZrPort* port = module->getPort(portName.c_str());
  if (!port) {
    error = std::string("module '") + module->getName() + "' has no port '" + portName +
            "' (see 'zrreg ports " + module->getTypeId()->getName() + "')";
    return false;
  }
  return port->setFromText(value, error);
}

ZrObject* ZrCliSession::loadImage(const std::string& name, const std::string& path, bool labels,
                                  std::string& error) {
  ZrImageIO::ReadOptions opt;
  opt.asLabels = labels;
  ZrImageIO::ReadInfo info;
  ZrRegScalarField3* f = ZrImageIO::read(path, opt, &info, error);
  if (!f)
    return nullptr;
  if (!info.notice.empty())
    ZrRunContext::notice(path + ": " + info.notice);
  f->setName(name.c_str());
  ZrObjectPool::getTheObjectPool()->addObject(f);
  loaded.push_back({f->getName(), f, info.order});
  return f;
}

const ZrImageIO::FileOrder* ZrCliSession::fileOrder(const std::string& name) const {
  // The latest load of a name wins; an object no longer in the pool has none.
  for (auto it = loaded.rbegin(); it != loaded.rend(); ++it)
    if (it->name == name)
      return find(name) == it->object ? &it->order : nullptr;
  return nullptr;
}

const ZrImageIO::FileOrder* ZrCliSession::fileOrderFor(const ZrRegScalarField3* f) const {
  if (!f)
    return nullptr;
  for (auto it = loaded.rbegin(); it != loaded.rend(); ++it)
    if (it->object == f && find(it->name) == f)
      return &it->order;
  float box[6], other[6];
  f->getBoundingBox(box);
  SbMatrixd m, n;
  f->getTransform(m);
  for (const Loaded& l : loaded) {
    auto* g = dynamic_cast<const ZrRegScalarField3*>(find(l.name));
    if (g != l.object || !g || !l.order.fits(f->getDims()))
      continue;
    g->getBoundingBox(other);
    g->getTransform(n);
    if (std::equal(box, box + 6, other) && m.equals(n, 1e-9))
      return &l.order;
  }
  return nullptr;
}

bool ZrCliSession::save(const std::string& object, const std::string& path, std::string& error) {
  ZrObject* obj = find(object);
  if (!obj) {
    error = "no object named '" + object + "'";
    return false;
  }
  if (auto* f = dynamic_cast<ZrRegScalarField3*>(obj)) {
    std::string notice;
    bool ok = ZrImageIO::write(f, path, error, &notice, fileOrderFor(f));
    if (ok && !notice.empty())
      ZrRunContext::notice(notice);
    return ok;
  }
  if (auto* l = dynamic_cast<ZrLandmarkSet*>(obj))
    return ZrPointSetIO::writeLandmarks(l, path, error);
  if (auto* v = dynamic_cast<ZrVertexSet*>(obj))
    return ZrPointSetIO::writeVertices(v, path, error);
  error = "'" + object + "' (" + obj->getTypeId()->getName() + ") cannot be saved to a file";
  return false;
}

bool ZrCliSession::fire(ZrCompModule* module, bool compute, std::string& error) {
  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  module->fire(compute ? 1 : 0);
  module->untouchPorts(true);
  if (compute && wa->wasInterrupted()) {
    error = std::string("module '") + module->getName() + "' was interrupted";
    return false;
  }
  return true;
}

std::string ZrCliSession::describePorts(const ZrCompModule* module) {
  std::string s;
  for (int i = 0; i < module->getNumPorts(); i++)
    s += module->getPort(i)->toText();
  return s;
}

bool ZrCliSession::execute(const std::vector<std::string>& w, std::string& error) {
  if (w.empty())
    return true;
  const std::string& cmd = w[0];
  auto need = [&](size_t lo, size_t hi, const char* usage) {
    if (w.size() < lo || w.size() > hi) {
      error = std::string("usage: ") + usage;
      return false;
    }
    return true;
  };
  if (cmd == "load") {
    if (!need(3, 4, "load NAME FILE [labels]"))
      return false;
    if (w.size() == 4 && w[3] != "labels") {
      error = "usage: load NAME FILE [labels]";
      return false;
    }
    return loadImage(w[1], w[2], w.size() == 4, error) != nullptr;
  }
  if (cmd == "landmarks" || cmd == "vertices") {
    if (!need(3, 3, cmd == "landmarks" ? "landmarks NAME FILE" : "vertices NAME FILE"))
      return false;
    ZrObject* obj = cmd == "landmarks" ? (ZrObject*)ZrPointSetIO::readLandmarks(w[2], error)
                                       : (ZrObject*)ZrPointSetIO::readVertices(w[2], error);
    if (!obj)
      return false;
    obj->setName(w[1].c_str());
    ZrObjectPool::getTheObjectPool()->addObject(obj);
    return true;
  }
  if (cmd == "create") {
    if (!need(2, 3, "create CLASS [NAME]"))
      return false;
    return createModule(w[1], w.size() > 2 ? w[2] : std::string(), error) != nullptr;
  }
  if (cmd == "connect" || cmd == "set" || cmd == "hit") {
    if (cmd == "connect" && !need(4, 4, "connect MODULE PORT OBJECT"))
      return false;
    if (cmd == "set" && !need(3, 1000, "set MODULE PORT VALUE..."))
      return false;
    if (cmd == "hit" && !need(3, 4, "hit MODULE PORT [BUTTON]"))
      return false;
    ZrCompModule* m = findModule(w[1], error);
    if (!m)
      return false;
    std::string value;
    for (size_t i = 3; i < w.size(); i++)
      value += (i > 3 ? " " : "") + w[i];
    if (cmd == "hit" && value.empty())
      value = "0";
    if (cmd == "connect") {
      ZrPort* p = m->getPort(w[2].c_str());
      if (p && !dynamic_cast<ZrConnection*>(p)) {
        error = "port '" + w[2] + "' of '" + w[1] + "' is not a connection";
        return false;
      }
    }
    return setPort(m, w[2], value, error);
  }
  if (cmd == "update" || cmd == "compute") {
    if (!need(2, 2, cmd == "update" ? "update MODULE" : "compute MODULE"))
      return false;
    ZrCompModule* m = findModule(w[1], error);
    return m && fire(m, cmd == "compute", error);
  }
  if (cmd == "save") {
    if (!need(3, 3, "save OBJECT FILE"))
      return false;
    return save(w[1], w[2], error);
  }
  if (cmd == "ports") {
    if (!need(2, 2, "ports MODULE"))
      return false;
    ZrCompModule* m = findModule(w[1], error);
    if (!m)
      return false;
    std::fputs(describePorts(m).c_str(), stdout);
    return true;
  }
  if (cmd == "list") {
    ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
    for (int i = 0; i < pool->getNumObjects(); i++)
      std::printf("%s (%s)\n", pool->getObject(i)->getName(),
                  pool->getObject(i)->getTypeId()->getName());
    return true;
  }
  if (cmd == "echo") {
    for (size_t i = 1; i < w.size(); i++)
      std::printf("%s%s", i > 1 ? " " : "", w[i].c_str());
    std::printf("\n");
    return true;
  }
  error = "unknown command '" + cmd +
          "' (load, landmarks, vertices, create, connect, set, hit, update, compute, save, "
          "ports, list, echo)";
  return false;
}

bool ZrCliSession::runScript(const std::string& path, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot open script '" + path + "'";
    return false;
  }
  std::string line;
  int lineNo = 0;
  std::vector<std::string> words;
  while (std::getline(in, line)) {
    lineNo++;
    std::string why;
    if (!splitLine(line, words, why) || !execute(words, why)) {
      error = path + ":" + std::to_string(lineNo) + ": " + why;
      return false;
    }
  }
  return true;
}
