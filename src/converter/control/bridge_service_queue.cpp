/* Creation and end of the queues, and the last message in them. */
#include "converter/control/bridge_service_queue.h"

#include "common/bridge_log.h"

#include <cerrno>
#include <fcntl.h>

static constexpr mode_t QUEUE_MODE = 0660;
static constexpr long QUEUE_LENGTH = 10;

/* What the system allows by default: an earlier run may have left a queue of larger messages. */
static constexpr size_t MAX_MESSAGE_SIZE = 8192;

mqd_t bridge_queue_open(const bridge_queue_words &words, size_t message_size)
{
    mq_attr attributes = {};
    attributes.mq_maxmsg = QUEUE_LENGTH;
    attributes.mq_msgsize = static_cast<long>(message_size);
    mqd_t mq =
        mq_open(words.name, O_WRONLY | O_CREAT | O_EXCL | O_NONBLOCK | O_CLOEXEC, QUEUE_MODE, &attributes);
    if (mq < 0 && errno != EEXIST) {
        BRIDGE_ERROR(words.not_created, 0);
        return -1;
    }
    if (mq < 0) {
        BRIDGE_DEBUG(words.exists, words.name);
        mq = mq_open(words.name, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (mq < 0) {
            BRIDGE_ERROR(words.not_opened, 0);
            return -1;
        }
    }
    BRIDGE_TRACE(words.opened, mq);
    return mq;
}

/* Returns whether another message may fit now: one has gone, or the service's thread has taken them. */
static bool drop_oldest(const bridge_queue_words &words, mqd_t reader)
{
    char oldest[MAX_MESSAGE_SIZE];
    if (mq_receive(reader, oldest, sizeof(oldest), nullptr) < 0)
        return errno == EAGAIN || errno == EINTR;
    BRIDGE_WARN("message queue %s is full at the stop: its oldest message is lost", words.name);
    return true;
}

int bridge_queue_send_last(const bridge_queue_words &words, mqd_t mq, const void *message,
                           size_t message_size)
{
    const char *text = static_cast<const char *>(message);
    int result = mq_send(mq, text, message_size, 0);
    if (result == 0 || errno != EAGAIN)
        return result;
    const mqd_t reader = mq_open(words.name, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (reader < 0)
        return -1;
    for (long i = 0; i < QUEUE_LENGTH && drop_oldest(words, reader); i++) {
        result = mq_send(mq, text, message_size, 0);
        if (result == 0 || errno != EAGAIN)
            break;
    }
    mq_close(reader);
    return result;
}

void bridge_queue_remove(const bridge_queue_words &words, mqd_t *mq)
{
    mq_close(*mq);
    *mq = -1;
    mq_unlink(words.name);
}
