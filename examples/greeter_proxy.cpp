// SPDX-License-Identifier: Apache-2.0
#include "examples/greeter_proxy.h"
