#ifndef ZQ_KEL_THROW_H
#define ZQ_KEL_THROW_H

#include "zq/kel/Exception.h"

// Throws a support-library exception carrying the place it was thrown from.
#define ZQ_THROW(Type) throw ::zq::kel::exception::Type(__LINE__, __FILE__)
#define ZQ_THROW_DETAIL(Type, detail) throw ::zq::kel::exception::Type((detail), __LINE__, __FILE__)

#endif  // ZQ_KEL_THROW_H
