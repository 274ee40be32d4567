// The umbrella header: includes every public header of KelFoundation.
#pragma once

#include "kel/Platform/DomainError.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/Log.hpp"
