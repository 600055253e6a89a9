/* POSIX semaphores as locks. */
#ifndef BRIDGE_SEM_H
#define BRIDGE_SEM_H

#include <cerrno>
#include <semaphore.h>

/* Takes the semaphore; a signal in between does not count as taking it. */
inline void bridge_sem_wait(sem_t *sem)
{
    while (sem_wait(sem) < 0 && errno == EINTR)
        continue;
}

#endif
