/* The transfers of a job's child. Single-threaded processes only: nothing of the library outlives a call. */
#ifndef BRIDGE_FILEOPS_CURL_H
#define BRIDGE_FILEOPS_CURL_H

#include <cstdint>
#include <sys/types.h>

/* What is sent, and under which name the server knows it. */
struct bridge_fileops_upload {
    const char *real_path;
    const char *virtual_path;
    const char *tmst_path; /* kept fresh while the upload runs; or null */
    const char *url;
    off_t offset;
    uint64_t size;
};

/* Posts a part of a file as a multipart form of "filedata", "mac" and "filepath". Returns 0, also when the
 * server does not take it, or a negative errno. A size that runs past the end of the file ends the process by
 * a signal. */
int bridge_fileops_curl_upload(const bridge_fileops_upload *upload);

/* Writes what the server answers into the file, whatever status it comes with. Returns 0 or a negative errno;
 * what has come of a broken transfer stays. */
int bridge_fileops_curl_download(const char *fetch_url, const char *real_path);

#endif
