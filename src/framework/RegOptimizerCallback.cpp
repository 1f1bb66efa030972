#include "RegOptimizerCallback.h"

RegOptimizerCallback::~RegOptimizerCallback() {}

bool RegOptimizerCallback::checkForInterrupt() { return false; }
