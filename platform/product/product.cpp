// SPDX-License-Identifier: Apache-2.0
#include "platform/product/product.h"

namespace keel {

String TBCopyCalderBuildVersion() {
  return KEEL_BUILD_VERSION;
}

}  // namespace keel
