#pragma once

// The stable part of the ABI. Draft extensions (the web view) come with
// clap/all.h, or with their own header.

#include "entry.h"
#include "factory/plugin-factory.h"
#include "fixedpoint.h"
#include "id.h"
#include "plugin-features.h"
#include "plugin.h"
#include "host.h"
#include "process.h"
#include "audio-buffer.h"
#include "events.h"
#include "stream.h"
#include "string-sizes.h"
#include "version.h"

#include "ext/audio-ports.h"
#include "ext/gui.h"
#include "ext/latency.h"
#include "ext/note-ports.h"
#include "ext/params.h"
#include "ext/posix-fd-support.h"
#include "ext/state.h"
#include "ext/timer-support.h"
