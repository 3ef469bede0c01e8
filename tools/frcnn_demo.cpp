// frcnn_demo: the library's Faster R-CNN post-processing pipeline on one
// frame, through the exported interface of the shared library. See --help.
#include "demo/demo_main.h"

int main(int argc, char** argv) { return ol_demo::demo_main(argc, argv); }
