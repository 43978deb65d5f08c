#ifndef ZQ_ORVANE_ORVANE_H
#define ZQ_ORVANE_ORVANE_H

// Everything a client of the registry uses.

#include "zq/kel/AbsoluteTime.h"
#include "zq/kel/AutoRef.h"
#include "zq/kel/Exception.h"
#include "zq/kel/Guid.h"
#include "zq/kel/OSException.h"
#include "zq/kel/RefCounted.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/BucketManager.h"
#include "zq/orvane/BucketValue.h"
#include "zq/orvane/Digest.h"
#include "zq/orvane/IBucket.h"
#include "zq/orvane/IBucketCase.h"
#include "zq/orvane/IBucketManager.h"
#include "zq/orvane/IBucketValue.h"
#include "zq/orvane/IOrvane.h"
#include "zq/orvane/StatusCodes.h"
#include "zq/orvane/ValueType.h"
#include "zq/orvane/Version.h"

#endif  // ZQ_ORVANE_ORVANE_H
