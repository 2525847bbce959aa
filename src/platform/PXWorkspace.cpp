#include <pxkit/platform/PXWorkspace.h>

#include "platform/internal/SystemEvents.h"

PX_DEFINE_CLASS(PXWorkspace, PXObject, [](PXClassBuilder<PXWorkspace>&) {})

PXWorkspace::PXWorkspace() : center_(PXMake<PXNotificationCenter>()) {
  pxkit::internal::setAnnouncesSystemEvents(*center_);
}

PXWorkspace* PXWorkspace::sharedWorkspace() {
  static PXWorkspace* workspace = new PXWorkspace;  // never released
  return workspace;
}
