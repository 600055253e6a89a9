/* A fixed-size pool of worker threads with one first-in, first-out queue of jobs, without a limit on its
 * length. thpool_add_work may be called on any thread; the others by the pool's owner. */
#ifndef THPOOL_H
#define THPOOL_H

struct thpool;

/* Returns the pool once all threads run, or null when memory or threads are lacking. A negative count is
 * taken as 0: jobs are then queued and never run. */
thpool *thpool_init(int num_threads);

/* Queues `function(arg)`. Returns 0, or -1 without memory. */
int thpool_add_work(thpool *pool, void (*function)(void *), void *arg);

/* Blocks until the queue is empty and no thread is working. */
void thpool_wait(thpool *pool);

/* Ends the threads, drops jobs still queued and frees the pool. Waits for running jobs, without a limit.
 * Null is accepted. */
void thpool_destroy(thpool *pool);

/* Holds every thread of the pool where it is, by SIGUSR1. Resuming one pool resumes all. */
void thpool_pause(thpool *pool);
void thpool_resume(thpool *pool);

int thpool_num_threads_working(thpool *pool);

#endif
