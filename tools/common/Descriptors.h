#ifndef ESG_TOOLS_DESCRIPTORS_H
#define ESG_TOOLS_DESCRIPTORS_H

namespace esg::tools {

/// Opens those of the standard descriptors that are closed, so that no connection gets their
/// numbers. Call it first.
void ReserveStandardDescriptors();

}  // namespace esg::tools

#endif
