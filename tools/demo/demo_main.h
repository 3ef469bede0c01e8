// The frcnn_demo command: the whole pipeline on one frame through the
// library's exported interface. Returns the exit status (0 on success); any
// fault is one line "frcnn_demo: error: ..." on standard error.
#ifndef OL_DEMO_DEMO_MAIN_H
#define OL_DEMO_DEMO_MAIN_H

namespace ol_demo {

int demo_main(int argc, char** argv);

}  // namespace ol_demo

#endif
