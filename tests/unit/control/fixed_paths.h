/* The folders and files with fixed paths, moved below a root that the test owns: the calls that name them are
 * redirected at link time. */
#ifndef FIXED_PATHS_H
#define FIXED_PATHS_H

#include <string>
#include <vector>

class fixed_paths
{
  public:
    /* Also forgets what was made. */
    static void move_below(const std::string &root);

    /* "mkdir 775 /var/log" and "mkfifo 600 /tmp/..." in order, with the paths as the module names them. */
    static std::vector<std::string> made();

    /* Where a path really lies. */
    static std::string below(const std::string &path);
};

#endif
