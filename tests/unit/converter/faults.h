/* Calls into the system and the libraries that fail when a test says so. */
#ifndef FAULTS_H
#define FAULTS_H

#include <atomic>

struct fault {
    std::atomic<int> after = -1; /* calls that still succeed; negative: none fails */
    int result = -1;
    int error = 0; /* errno of the failure */
    std::atomic<int> calls = 0;

    /* True for the one call that fails. */
    bool strikes();
    void arm(int successes, int with_result, int with_errno);
    void reset();
};

struct faults_of_the_test {
    fault thpool_init;
    fault thpool_add_work;
    fault thpool_destroy; /* counts only */
    fault socket;
    fault pipe2;
    fault fcntl_get;
    fault fcntl_set;
    fault getnameinfo;
    fault getaddrinfo;
    fault sendto;
    fault recvfrom;
    fault select;
    fault pipe_read;
    fault pipe_write;
    fault new_object;
    fault new_tokener;
    fault to_string;

    void reset();
};

extern faults_of_the_test faults;

#endif
