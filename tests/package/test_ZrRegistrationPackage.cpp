// The package as a host loads it: by path with dlopen, its entries found with
// dlsym, the init entry called twice registering once, and each module created
// by its class name through the host's type records.
#include "QbTypeInfo.h"
#include "ZrCompModule.h"
#include "ZrPortButtonList.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

int countTypes(const char* name) {
  int n = 0;
  for (const QbTypeInfo* t : QbTypeInfo::allTypes())
    n += std::strcmp(t->getName(), name) == 0;
  return n;
}

} // namespace

TEST(ZrRegistrationPackage, EntriesInitAndModulesByName) {
  const char* dir = std::getenv("ZR_PACKAGE_DIR");
  void* h = dlopen((std::string(dir ? dir : ".") + "/libzrregistration.so").c_str(),
                   RTLD_NOW | RTLD_GLOBAL);
  ASSERT_NE(h, nullptr) << dlerror();
  typedef void (*Entry)();
  Entry entries[4];
  const char* names[4] = {"torvipackage_zrregistration_init", "torvipackage_zrregistration_finish",
                          "soconstructor_zrregistration", "sodestructor_zrregistration"};
  for (int i = 0; i < 4; i++) {
    entries[i] = reinterpret_cast<Entry>(dlsym(h, names[i]));
    ASSERT_NE(entries[i], nullptr) << names[i];
  }
  ASSERT_NE(dlsym(h, "torvipackage_zrregistration"), nullptr); // the build stamp
  // The type records exist once the library is loaded; finishing before init
  // only sets its flag; init twice registers once.
  const QbTypeInfo* affine = QbTypeInfo::fromName("ZrAffineRegistration");
  entries[1]();
  entries[0]();
  entries[0]();
  entries[2]();
  for (const char* name : {"ZrAffineRegistration", "ZrElasticRegistration",
                           "ZrApplyBSplineTransform", "ZrApplyDeformation"}) {
    const QbTypeInfo* t = QbTypeInfo::fromName(name);
    ASSERT_NE(t, nullptr) << name;
    EXPECT_EQ(countTypes(name), 1) << name;
    ASSERT_TRUE(t->canCreate()) << name;
    std::unique_ptr<ZrCompModule> m(dynamic_cast<ZrCompModule*>(t->createInstance()));
    ASSERT_NE(m, nullptr) << name;
    EXPECT_EQ(m->getTypeId(), t);
    m->fire(0);
  }
  EXPECT_EQ(QbTypeInfo::fromName("ZrAffineRegistration"), affine);
  // Without inputs an update leaves the registration's actions insensitive,
  // and a compute does nothing.
  std::unique_ptr<ZrCompModule> m(dynamic_cast<ZrCompModule*>(affine->createInstance()));
  auto* action = dynamic_cast<ZrPortButtonList*>(m->getPort("action"));
  ASSERT_NE(action, nullptr);
  m->fire(0);
  EXPECT_FALSE(action->isSensitive(2));
  m->fire(1);
  m.reset();
  entries[3]();
  entries[1]();
  dlclose(h);
}
