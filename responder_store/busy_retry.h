/*
 * busy_retry: the busy rule of both stores, where their users look for it.
 */
#pragma once

#include "responder_store/kit/busy_retry.h"
