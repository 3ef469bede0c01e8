#include <stdio.h>

#include "brennik_opt_layers.h"
#include "ol_version.h"

namespace {
const char k_description[] = OL_DESCRIPTION;
}

int opt_layers_get_version(opt_layers_version* version) {
  if (version == nullptr) {
    puts("Version pointer is NULL");
    return -1;
  }
  version->major = OL_VERSION_MAJOR;
  version->minor = OL_VERSION_MINOR;
  version->patch = OL_VERSION_PATCH;
  version->build_date = OL_BUILD_DATE;
  version->description = k_description;
  return 0;
}
