/* Creation and end of the queues. */
#include "converter/control/bridge_service_queue.h"

#include "common/bridge_log.h"

#include <cerrno>
#include <fcntl.h>

static constexpr mode_t QUEUE_MODE = 0660;
static constexpr long QUEUE_LENGTH = 10;

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

void bridge_queue_remove(const bridge_queue_words &words, mqd_t *mq)
{
    mq_close(*mq);
    *mq = -1;
    mq_unlink(words.name);
}
