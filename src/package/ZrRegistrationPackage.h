#pragma once
// Entries that a host resolves with dlsym after loading the package.
extern "C" {
const char* torvipackage_zrregistration();
void torvipackage_zrregistration_init();
void torvipackage_zrregistration_finish();
void soconstructor_zrregistration();
void sodestructor_zrregistration();
}
