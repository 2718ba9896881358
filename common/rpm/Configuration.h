#pragma once

namespace Common::Rpm {

/// Loads librpm's configuration and macro files, giving back what the load before took, unless none of them
/// has changed since two loads agreed; files that an rpmrc includes are not watched. Called before every use
/// of librpm. Files that cannot be read are a warning in the log, never an error. The configuration is
/// process-wide: one thread of the process uses librpm at a time.
void readRpmConfiguration();

} // namespace Common::Rpm
