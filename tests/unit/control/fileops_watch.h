/* The watcher of the files, replaced at link time. */
#ifndef CONTROL_FILEOPS_WATCH_H
#define CONTROL_FILEOPS_WATCH_H

#include <string>
#include <vector>

struct fileops_watch_script {
    std::vector<std::string> calls; /* "running 7", "stop 7", "clean <dir> <mask> <timestamp> <age>" */
    bool running = false;
    int running_result = 0;
    int stop_result = 0;
    int clean_result = 0;
};

extern fileops_watch_script fileops_watch;

#endif
