/* The sending end of a service's POSIX message queue. The caller guards it. */
#ifndef BRIDGE_SERVICE_QUEUE_H
#define BRIDGE_SERVICE_QUEUE_H

#include <cstddef>
#include <mqueue.h>

/* What a service says of its queue. */
struct bridge_queue_words {
    const char *name;   /* of the queue, "/..." */
    const char *exists; /* takes the name */
    const char *not_created;
    const char *not_opened;
    const char *opened; /* takes the descriptor */
};

/* Creates the queue for ten messages of the size, or opens one that an earlier run has left. It never blocks.
 * Returns the descriptor, or -1 after logging. */
mqd_t bridge_queue_open(const bridge_queue_words &words, size_t message_size);

/* Sends the message that ends the service's thread. In a full queue it takes the place of the oldest one,
 * which is logged: the queue goes next, and what is in it with it, but a thread that is not told stays for
 * good. Returns 0 or -1. */
int bridge_queue_send_last(const bridge_queue_words &words, mqd_t mq, const void *message,
                           size_t message_size);

/* Closes the descriptor, which becomes -1, and removes the queue. */
void bridge_queue_remove(const bridge_queue_words &words, mqd_t *mq);

#endif
