/* registry.h - the list of open endpoints; every function here but the three lock functions expects
 * the registry lock held. */
#ifndef MSGPASS_REGISTRY_H
#define MSGPASS_REGISTRY_H

#include "internal.h"

void msg_registry_lock(void);
void msg_registry_unlock(void);
/* 1 with the lock taken, 0 when another thread holds it. */
int msg_registry_trylock(void);
/* The first open endpoint (the rest follow through `next`), or NULL. */
struct msg_endpoint* msg_registry_first_locked(void);
struct msg_endpoint* msg_registry_find_locked(const char* name);
/* Adds `ep` holding the registry's reference. */
void msg_registry_insert_locked(struct msg_endpoint* ep);
/* Unlinks endpoint `name` (any endpoint for NULL) and hands over the registry's reference. */
struct msg_endpoint* msg_registry_remove_locked(const char* name);

#endif /* MSGPASS_REGISTRY_H */
