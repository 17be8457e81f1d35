#pragma once

// Everything: the stable ABI and the draft extensions.

#include "clap.h"

#include "ext/draft/webview.h"
