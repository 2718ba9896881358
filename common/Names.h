#pragma once

#include <string>

/// All bus names, object paths, member names and error names of the program, and the paths of files that it
/// reads. Use these constants, never literals.
namespace Common::Names {

/// The message bus itself.
namespace MessageBus {
inline const std::string service = "org.freedesktop.DBus";
inline const std::string objectPath = "/org/freedesktop/DBus";
inline const std::string interface = "org.freedesktop.DBus";
inline const std::string getNameOwner = "GetNameOwner";
inline const std::string nameHasOwner = "NameHasOwner";
inline const std::string getConnectionCredentials = "GetConnectionCredentials";
inline const std::string nameOwnerChanged = "NameOwnerChanged";
} // namespace MessageBus

/// The service's own interface on the session bus.
namespace Vendara {
inline const std::string service = "norvane.Vendara";
inline const std::string objectPath = "/norvane/Vendara";
inline const std::string interface = "norvane.Vendara";
inline const std::string error = "norvane.Vendara.Error";
inline const std::string install = "Install";
inline const std::string remove = "Remove";
inline const std::string getAllProperties = "GetAllProperties";
inline const std::string start = "Start";
inline const std::string restart = "Restart";
inline const std::string operationStatusChanged = "OperationStatusChanged";
inline const std::string packageInstalled = "PackageInstalled";
inline const std::string packageUpgraded = "PackageUpgraded";
inline const std::string packageRemoved = "PackageRemoved";
// Keys of the map that GetAllProperties returns.
inline const std::string architecture = "Architecture";
inline const std::string quenraVersion = "QuenraVersion";
inline const std::string operations = "Operations";
inline const std::string completedOperations = "CompletedOperations";
inline const std::string packages = "Packages";
} // namespace Vendara

/// The package manager service on the system bus.
namespace Zul {
inline const std::string service = "norvane.ZUL";
inline const std::string objectPath = "/norvane/ZUL";
inline const std::string interface = "norvane.ZUL";
inline const std::string errorPrefix = "norvane.ZUL.Error.";
inline const std::string install = "Install";
inline const std::string remove = "Remove";
inline const std::string getPackageList = "GetPackageList";
inline const std::string packageInstalled = "PackageInstalled";
inline const std::string packageUpgraded = "PackageUpgraded";
inline const std::string packageRemoved = "PackageRemoved";
} // namespace Zul

/// The runtime manager service on the session bus.
namespace RuntimeManager {
inline const std::string service = "norvane.RuntimeManager";
inline const std::string controlPath = "/norvane/RuntimeManager/Control1";
inline const std::string controlInterface = "norvane.RuntimeManager.Control1";
inline const std::string intentsPath = "/norvane/RuntimeManager/Intents1";
inline const std::string intentsInterface = "norvane.RuntimeManager.Intents1";
inline const std::string terminate = "Terminate";
inline const std::string terminated = "Terminated";
inline const std::string invokeIntent = "InvokeIntent";
inline const std::string startIntent = "Start";
inline const std::string preferredHandler = "preferredHandler";
} // namespace RuntimeManager

/// The application identification service on the session bus.
namespace Identification {
inline const std::string service = "norvane.am";
inline const std::string objectPath = "/norvane/am";
inline const std::string interface = "norvane.am.Identify";
inline const std::string identifyByBusName = "IdentifyByBusName";
} // namespace Identification

/// Keys of a package property map, and of the package record on disk.
namespace PackageKeys {
inline const std::string id = "general.id";
inline const std::string version = "general.version";
inline const std::string orgName = "general.orgname";
inline const std::string appName = "general.appname";
inline const std::string certificateId = "certificate.id";
inline const std::string certificateSubgroup = "certificate.subgroup";
} // namespace PackageKeys

/// Files of the system that the program reads.
namespace Files {
inline const std::string rpmPlatform = "/etc/rpm/platform";
inline const std::string osRelease = "/etc/os-release";
} // namespace Files

} // namespace Common::Names
