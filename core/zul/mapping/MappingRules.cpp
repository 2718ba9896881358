#include "core/zul/mapping/MappingRules.h"

#include <algorithm>

namespace Core::ZUL {

std::vector<MappingRule> mappingRules(const PackageIdentity& package) {
    using enum MappingKind;
    const auto& id = package.id();
    std::vector<MappingRule> rules{
        {"/usr/bin/", "bin", Link},
        {"/usr/lib/connman/plugins-vpn/", "connman/plugin", Copy},
        {"/usr/lib/qt5/qml/", "qt5/qml", Link},
        {"/usr/lib/3rdparty/" + id + "/", "3rdparty", Link},
        {"/usr/share/" + id + "/", "data", Link},
        {"/usr/share/applications/", "manifest", Link},
        {"/usr/share/icons/hicolor/86x86/apps/", "icons/hicolor/86x86/apps", Link},
        {"/usr/share/icons/hicolor/108x108/apps/", "icons/hicolor/108x108/apps", Link},
        {"/usr/share/icons/hicolor/128x128/apps/", "icons/hicolor/128x128/apps", Link},
        {"/usr/share/icons/hicolor/172x172/apps/", "icons/hicolor/172x172/apps", Link},
        {"/usr/share/pellworth-vpn/", "pellworth-vpn", Copy},
        {"/etc/guard-launcher/", "guard-launcher", Link},
        {"/etc/connman/vpn-plugin/", "connman/config", Copy},
        {"/etc/verityd/config.d/", "verityd", Link},
        {"/etc/kcapi/cryptoken_pkcs11/", "kcapi/cryptoken_pkcs11", Link},
        {"/usr/libexec/" + id + "/", "libexec", Link},
        {"/opt/extension/p11-kit-modules/", "p11-kit-modules", Link},
        {"/opt/extension/qca-plugins/", "qca-plugins", Link},
        {"/etc/trusted-sources/", "trusted-sources", Link},
    };
    if (package.orgName() && package.appName()) {
        rules.push_back(
            {"/usr/share/common/" + *package.orgName() + "/" + *package.appName() + "/", "common", Link});
    }
    return rules;
}

std::string placeOf(const std::string& file, const std::vector<MappingRule>& rules) {
    const auto rule = std::find_if(rules.begin(), rules.end(), [&](const MappingRule& each) {
        return file.starts_with(each.source + "/");
    });
    return rule == rules.end() ? std::string() : rule->target + file.substr(rule->source.size() + 1);
}

} // namespace Core::ZUL
