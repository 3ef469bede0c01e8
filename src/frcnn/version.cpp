#include <stdio.h>

#include "brennik_opt_layers.h"

namespace {
const char k_description[] = "Norvantix Faster RCNN Library";
}

int opt_layers_get_version(opt_layers_version* version) {
  if (version == nullptr) {
    puts("Version pointer is NULL");
    return -1;
  }
  version->major = 1;
  version->minor = 1;
  version->patch = 2;
  version->build_date = 0x20191230;
  version->description = k_description;
  return 0;
}
