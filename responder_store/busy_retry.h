/*
 * busy_retry: the busy rule of both stores, where their users look for it.
 */
#ifndef KOLMO_RESPONDER_STORE_BUSY_RETRY_H
#define KOLMO_RESPONDER_STORE_BUSY_RETRY_H

#include "responder_store/kit/busy_retry.h"

#endif
