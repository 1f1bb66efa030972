// The package as a host loads it: by path with dlopen, its five entries
// found with dlsym, the build stamp read, the init entry called twice, and
// a module created by its class name through the host's type records.
#include "QbTypeInfo.h"
#include "ZrCompModule.h"
#include "ZrPortButtonList.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

typedef const char* (*StampEntry)();
typedef void (*VoidEntry)();

struct Package {
  void* handle = nullptr;
  StampEntry stamp = nullptr;
  VoidEntry init = nullptr, finish = nullptr, ctor = nullptr, dtor = nullptr;

  Package() {
    const char* dir = std::getenv("ZR_PACKAGE_DIR");
    const std::string path = std::string(dir ? dir : ".") + "/libzrregistration.so";
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (!handle)
      return;
    stamp = reinterpret_cast<StampEntry>(dlsym(handle, "torvipackage_zrregistration"));
    init = reinterpret_cast<VoidEntry>(dlsym(handle, "torvipackage_zrregistration_init"));
    finish = reinterpret_cast<VoidEntry>(dlsym(handle, "torvipackage_zrregistration_finish"));
    ctor = reinterpret_cast<VoidEntry>(dlsym(handle, "soconstructor_zrregistration"));
    dtor = reinterpret_cast<VoidEntry>(dlsym(handle, "sodestructor_zrregistration"));
  }
  ~Package() {
    if (handle)
      dlclose(handle);
  }
};

int countTypes(const char* name) {
  int n = 0;
  for (const QbTypeInfo* t : QbTypeInfo::allTypes())
    n += std::strcmp(t->getName(), name) == 0;
  return n;
}

} // namespace

TEST(ZrRegistrationPackage, EntriesStampAndModuleByName) {
  Package p;
  ASSERT_NE(p.handle, nullptr) << dlerror();
  ASSERT_NE(p.stamp, nullptr);
  ASSERT_NE(p.init, nullptr);
  ASSERT_NE(p.finish, nullptr);
  ASSERT_NE(p.ctor, nullptr);
  ASSERT_NE(p.dtor, nullptr);

  // The stamp: "|key|value|..." pairs, then the closing marker; the product
  // and whole-number versions where the host reads them.
  const std::string stamp = p.stamp();
  std::vector<std::string> fields;
  size_t pos = 0;
  for (size_t next; pos < stamp.size() && stamp[pos] == '|' &&
                    (next = stamp.find('|', pos + 1)) != std::string::npos;
       pos = next)
    fields.push_back(stamp.substr(pos + 1, next - pos - 1));
  ASSERT_GE(fields.size(), 32u);
  EXPECT_EQ(fields[2], "product");
  EXPECT_EQ(fields[3], "zrregistration");
  for (int i = 2; i <= 4; i++) {
    EXPECT_EQ(fields[2 * i].rfind("version_", 0), 0u);
    EXPECT_EQ(fields[2 * i + 1].find_first_not_of("0123456789"), std::string::npos);
  }
  EXPECT_GT(stamp.size(), pos + 1);

  // The type record exists once the library is loaded, before any entry.
  const QbTypeInfo* type = QbTypeInfo::fromName("ZrAffineRegistration");
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(countTypes("ZrAffineRegistration"), 1);

  // Finishing before init only sets its flag; init twice registers once.
  p.finish();
  p.init();
  p.init();
  p.ctor();
  EXPECT_EQ(countTypes("ZrAffineRegistration"), 1);
  EXPECT_EQ(QbTypeInfo::fromName("ZrAffineRegistration"), type);

  // A working module by its class name.
  ASSERT_TRUE(type->canCreate());
  ZrCompModule* m = dynamic_cast<ZrCompModule*>(type->createInstance());
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->getTypeId(), type);
  auto* action = dynamic_cast<ZrPortButtonList*>(m->getPort("action"));
  ASSERT_NE(action, nullptr);
  // Without inputs an update leaves every action insensitive, and a compute
  // does nothing.
  m->fire(0);
  EXPECT_FALSE(action->isSensitive(2));
  m->fire(1);
  delete m;

  // The other three modules, by class name, each registered once.
  for (const char* name :
       {"ZrElasticRegistration", "ZrApplyBSplineTransform", "ZrApplyDeformation"}) {
    const QbTypeInfo* t = QbTypeInfo::fromName(name);
    ASSERT_NE(t, nullptr) << name;
    EXPECT_EQ(countTypes(name), 1) << name;
    ASSERT_TRUE(t->canCreate()) << name;
    ZrCompModule* other = dynamic_cast<ZrCompModule*>(t->createInstance());
    ASSERT_NE(other, nullptr) << name;
    EXPECT_EQ(other->getTypeId(), t);
    other->fire(0);
    delete other;
  }

  p.dtor();
  p.finish();
}
