#pragma once

namespace Common::Rpm {

/// Loads librpm's configuration and macro files and frees the memory of the previous load. To be called
/// before every use of librpm. Does nothing if two loads gave the same macros and no file has changed since;
/// files included by an rpmrc are not checked. Files that cannot be read cause a warning in the log, never an
/// error. The configuration is process-wide: only one thread of the process may use librpm at a time.
void readRpmConfiguration();

} // namespace Common::Rpm
