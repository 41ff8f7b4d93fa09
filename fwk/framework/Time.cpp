#include "fwk/framework/Time.h"

#include "fwk/framework/ActivityManager.h"

namespace Kel {

double now() { return activityManager()->now(); }

}  // namespace Kel
