// nolog.h - read before each file of the driver that is built without its log, except the log's own.
#pragma once

#include "log/log.h"

#define LogPrintf(...) ((void)0)
#define LogHexDump(...) ((void)0)
#define IsLogOn(...) (false)
