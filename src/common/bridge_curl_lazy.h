/* libcurl, loaded by the process that transfers. With the libraries that it brings it would be a good part of
 * the daemon's memory, and the daemon itself never transfers: a job's child does, and has them for as long as
 * it lives. */
#ifndef BRIDGE_CURL_LAZY_H
#define BRIDGE_CURL_LAZY_H

#include <curl/curl.h>

/* Members are named after the library's functions. */
struct bridge_curl {
    decltype(&curl_global_init) global_init;
    decltype(&curl_free) free;
    decltype(&curl_easy_init) easy_init;
    decltype(&curl_easy_setopt) easy_setopt;
    decltype(&curl_easy_perform) easy_perform;
    decltype(&curl_easy_strerror) easy_strerror;
    decltype(&curl_easy_cleanup) easy_cleanup;
    decltype(&curl_mime_init) mime_init;
    decltype(&curl_mime_addpart) mime_addpart;
    decltype(&curl_mime_name) mime_name;
    decltype(&curl_mime_filename) mime_filename;
    decltype(&curl_mime_data) mime_data;
    decltype(&curl_mime_data_cb) mime_data_cb;
    decltype(&curl_mime_free) mime_free;
    decltype(&curl_slist_append) slist_append;
    decltype(&curl_slist_free_all) slist_free_all;
    decltype(&curl_url) url;
    decltype(&curl_url_set) url_set;
    decltype(&curl_url_get) url_get;
    decltype(&curl_url_cleanup) url_cleanup;
};

/* For single-threaded processes. Returns null after logging why; what is loaded stays so. */
const bridge_curl *bridge_curl_load();

#endif
