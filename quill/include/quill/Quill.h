// Everything of the Quill marker libraries in one include.
#pragma once

#include "quill/MarkOpt_class.h"
#include "quill/MarkTypes.h"
#include "quill/MyMatchMarkClass_update.h"
#include "quill/MyRealTimeMarkMatch_class.h"
