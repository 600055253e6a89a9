#include "control/fileops_watch.h"

#include "common/bridge_fileops_watch.h"

fileops_watch_script fileops_watch;

int bridge_fileops_force_clean(const bridge_fileops_watch_dir *, size_t)
{
    fileops_watch.calls.emplace_back("force clean");
    return 0;
}

int bridge_fileops_check_clean(const bridge_fileops_watch_dir *dirs, size_t dirs_sz)
{
    for (size_t i = 0; i < dirs_sz; i++)
        fileops_watch.calls.push_back(std::string("clean ") + dirs[i].dir + " " + dirs[i].glob + " " +
                                      dirs[i].tmst + " " + std::to_string(dirs[i].timeout));
    return fileops_watch.clean_result;
}

int bridge_fileops_update_tmst(const bridge_fileops_watch_dir *dir)
{
    fileops_watch.calls.push_back(std::string("touch ") + dir->tmst);
    return 0;
}

int bridge_fileops_watch_start(const bridge_fileops_watch_dir *, size_t)
{
    fileops_watch.calls.emplace_back("start");
    return 0;
}

int bridge_fileops_watch_running(int watch_pid, bool *running)
{
    fileops_watch.calls.push_back("running " + std::to_string(watch_pid));
    *running = fileops_watch.running;
    return fileops_watch.running_result;
}

int bridge_fileops_watch_stop(int watch_pid)
{
    fileops_watch.calls.push_back("stop " + std::to_string(watch_pid));
    return fileops_watch.stop_result;
}
