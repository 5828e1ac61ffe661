// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/workspace.h"

namespace kestrune {

Workspace& workspaceOf(CircleMarkerExtractor& extractor) {
    std::shared_ptr<Workspace>& workspace = extractor.workspace.owned;
    if (!workspace) workspace = std::make_shared<Workspace>();
    return *workspace;
}

}  // namespace kestrune
