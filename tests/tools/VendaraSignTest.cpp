#include "common/UniqueFd.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "testbed/CraftedPackage.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"
#include "tests/tools/JsonOutput.h"
#include "tools/vendara-sign/PackageSigner.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <pty.h>
#include <regex>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Testbed;
using testing::HasSubstr;

/// The program, with an authority of its own in "ca" and a package.
class VendaraSign : public testing::Test {
protected:
    [[nodiscard]] ProcessResult sign(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), VENDARA_SIGN);
        return run(arguments, {.directory = scratch.path()});
    }

    [[nodiscard]] static std::vector<std::string> by(const std::string& role, const std::string& name,
                                                     const std::string& package,
                                                     const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"--" + role + "-key", "ca/" + name + ".key", "--" + role + "-cert",
                                           "ca/" + name + ".pem", package};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    /// Runs the program on a terminal of its own, and at each prompt types a line or sends a signal. A shell
    /// leads the session: at its leader's end the kernel drops what the terminal has not delivered.
    [[nodiscard]] ProcessResult answer(std::vector<std::string> arguments, const std::string& typed,
                                       int signal = 0) const {
        const auto* script = "exec 2>&-; trap : INT TERM; (\"$@\" 2>&1); echo \"exit $?\"; read -r end";
        arguments.insert(arguments.begin(),
                         {"sh", "-c", script, "sh", "env", "-C", scratch.path(), "TERM=dumb", VENDARA_SIGN});
        std::vector<char*> words;
        words.reserve(arguments.size() + 1);
        for (auto& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        int descriptor = -1;
        const pid_t child = forkpty(&descriptor, nullptr, nullptr, nullptr);
        if (child == 0) {
            std::signal(SIGINT, SIG_DFL); // a shell may have had it ignored
            execvp(words[0], words.data());
            _exit(127);
        }
        Common::UniqueFd terminal(descriptor);
        std::string output;
        std::smatch end;
        const std::regex last("exit (\\d+)\r\n$");
        for (char byte = 0; !std::regex_search(output, end, last) && read(descriptor, &byte, 1) == 1;) {
            output += byte;
            if (output.ends_with("Passphrase of secret.key: ")) {
                EXPECT_EQ(signal != 0 ? kill(-child, signal) : write(descriptor, typed.data(), typed.size()),
                          signal != 0 ? 0 : static_cast<ssize_t>(typed.size()));
            }
        }
        terminal = {};
        waitpid(child, nullptr, 0);
        return {.status = std::stoi(end.str(1)), .output = end.prefix()};
    }

    void SetUp() override {
        ASSERT_EQ(sign({"--make-test-ca", "ca"}).status, 0);
        std::filesystem::rename(
            buildPackage(scratch.path() / "build", {.files = {{"/usr/bin/tool", "tool"}}}), file);
    }

    const ScratchDirectory scratch;
    const std::filesystem::path file = scratch.path() / "a.rpm";
};

TEST_F(VendaraSign, SignsAsDeveloperAndLaterAsClient) {
    const auto plain = readFile(file);
    std::filesystem::create_symlink("a.rpm", scratch.path() / "link.rpm");
    std::filesystem::permissions(file, std::filesystem::perms{0640});
    ASSERT_EQ(sign(by("developer", "developer", "link.rpm")).status, 0);
    const auto once = readFile(file);
    EXPECT_TRUE(once.starts_with(plain));
    EXPECT_TRUE(std::filesystem::is_symlink(scratch.path() / "link.rpm"));
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms{0640});
    EXPECT_EQ(sign({"--verify", "--authority", "ca/ca.pem", "a.rpm"}).status, 0);

    ASSERT_EQ(sign(by("client", "client", "a.rpm")).status, 0);
    const auto shown = sign({"--verify", "--authority", "ca/ca.pem", "a.rpm"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.output, HasSubstr("developer\n  subject: CN=Test developer\n"));
    EXPECT_THAT(shown.output, HasSubstr("client\n  subject: CN=Test client\n"));
    writeFile(scratch.path() / "b.rpm", plain);
    const auto size = ": " + std::to_string(plain.size()) + " bytes";
    const auto signers = "a.rpm" + size + "\n" + shown.output.substr(shown.output.find("developer\n"));
    EXPECT_EQ(sign({"--show", "a.rpm", "b.rpm"}).output, signers + "b.rpm" + size + ", no signatures\n");
    EXPECT_THAT(shown.output, testing::EndsWith(signers));

    // The same keys and package give the same file.
    const auto client = by("client", "client", "--output=c.rpm");
    ASSERT_EQ(sign(by("developer", "developer", "b.rpm", client)).status, 0);
    EXPECT_EQ(readFile(scratch.path() / "b.rpm"), plain);
    EXPECT_EQ(readFile(scratch.path() / "c.rpm"), readFile(file));
}

TEST_F(VendaraSign, ReplacesAndRemovesSignaturesOfManyPackagesAndPrintsThemAsJson) {
    const auto plain = readFile(file);
    writeFile(scratch.path() / "b.rpm", plain);
    ASSERT_EQ(sign(by("developer", "developer", "a.rpm", {"b.rpm"})).status, 0);
    EXPECT_EQ(readFile(scratch.path() / "b.rpm"), readFile(file));
    ASSERT_EQ(sign(by("client", "client", "a.rpm")).status, 0);
    ASSERT_EQ(sign(by("developer", "system-developer", "a.rpm", {"--replace"})).status, 0);
    const auto shown =
        sign({"--verify", "--authority", "ca/ca.pem", "--json", "a.rpm", "missing.rpm", "b.rpm"});
    EXPECT_EQ(shown.status, 1);
    const auto objects = objectsOf(shown.output);
    ASSERT_EQ(objects.size(), 3);
    const auto& signatures = objects[0].at("signatures");
    ASSERT_EQ(signatures.size(), 2);
    EXPECT_EQ(signatures[0].at("subject"), "CN=Test system developer");
    EXPECT_EQ(signatures[0].at("issuer"), "CN=Test package authority");
    EXPECT_EQ(signatures[0].at("signedFiles"), 1);
    EXPECT_EQ(signatures[0].at("keyId").get<std::string>() + "\n",
              readFile(scratch.path() / "ca/system-developer-keyid"));
    EXPECT_EQ(signatures[1].at("role"), "client");
    EXPECT_LT(signatures[1].at("validFrom"), signatures[1].at("validUntil"));
    EXPECT_EQ(objects[1].dump(),
              R"({"error":{"message":"No such file or directory","subject":"missing.rpm"}})");
    EXPECT_EQ(objects[2].at("package"), "b.rpm");
    const auto whole = readFile(file);
    auto changed = whole;
    changed[plain.size() + 30] ^= 1;
    writeFile(file, changed);
    const auto both = by("client", "client", "--replace");
    EXPECT_EQ(sign(by("developer", "developer", "a.rpm", {"--replace"})).status, 1);
    EXPECT_EQ(sign(by("developer", "system-developer", "a.rpm", both)).status, 0);
    EXPECT_EQ(readFile(file), whole);
    writeFile(file, whole.substr(0, whole.size() - 1));
    writeFile(scratch.path() / "c.rpm", changed);
    writeFile(scratch.path() / "cut.rpm", plain.substr(0, plain.size() - 1));
    EXPECT_EQ(sign({"--strip", "a.rpm", "cut.rpm", "b.rpm", "c.rpm"}).status, 1);
    for (const auto* name : {"a.rpm", "b.rpm", "c.rpm"}) {
        EXPECT_EQ(readFile(scratch.path() / name), plain) << name;
    }
}

TEST_F(VendaraSign, AcceptsKeysInTheFormatsOfOpenSslWithTheirPassphrase) {
    ASSERT_EQ(sign(by("developer", "developer", "a.rpm", {"--output", "signed.rpm"})).status, 0);
    const auto openssl = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "openssl");
        const auto result = run(arguments, {.directory = scratch.path()});
        EXPECT_EQ(result.status, 0) << result.output;
    };
    openssl({"pkey", "-in", "ca/developer.key", "-outform", "DER", "-out", "key.der"});
    openssl({"x509", "-in", "ca/developer.pem", "-outform", "DER", "-out", "cert.der"});
    openssl({"pkcs8", "-topk8", "-in", "ca/developer.key", "-passout", "pass:secret", "-out", "secret.key"});
    openssl({"pkcs12", "-export", "-inkey", "ca/developer.key", "-in", "ca/developer.pem", "-certfile",
             "ca/ca.pem", "-passout", "pass:secret", "-out", "all.p12"});
    writeFile(scratch.path() / "passphrase", "secret\nsomething else\n");
    const std::vector<std::string> inOneFile{"--developer-key", "all.p12"};
    const std::vector<std::string> encrypted{"--developer-key", "secret.key", "--developer-cert",
                                             "ca/developer.pem"};
    const auto signWith = [&](std::vector<std::string> arguments, const std::string& passphraseFile) {
        if (!passphraseFile.empty()) {
            arguments.insert(arguments.end(), {"--passphrase-file", passphraseFile});
        }
        arguments.insert(arguments.end(), {"--output", "b.rpm", "a.rpm"});
        return sign(arguments);
    };
    const std::pair<std::vector<std::string>, const char*> good[] = {
        {{"--developer-key", "key.der", "--developer-cert", "cert.der"}, ""},
        {encrypted, "passphrase"},
        {inOneFile, "passphrase"}};
    for (const auto& [arguments, passphraseFile] : good) {
        const auto result = signWith(arguments, passphraseFile);
        EXPECT_EQ(result.status, 0) << result.output;
        EXPECT_EQ(readFile(scratch.path() / "b.rpm"), readFile(scratch.path() / "signed.rpm"));
        std::filesystem::remove(scratch.path() / "b.rpm");
    }
    const auto* fromPipe = "cat passphrase | " VENDARA_SIGN
                           " --developer-key all.p12 --passphrase-file /dev/stdin --output c.rpm a.rpm";
    EXPECT_EQ(run({"sh", "-c", fromPipe}, {.directory = scratch.path()}).status, 0);
    const std::string prompt = "Passphrase of secret.key: \r\n";
    const auto refusal = [&](const std::string& problem) {
        return prompt + "vendara-sign: secret.key: " + problem + "\r\n";
    };
    const std::tuple<const char*, int, int, std::string> typed[] = {
        {"secret\n", 0, 0, prompt},
        {"wrong\n", 0, 1, refusal("couldn't be decrypted with the passphrase")},
        {"\4", 0, 1, refusal("is encrypted, and there is no passphrase for it")}, // the end of the input
        {"\3", 0, 128 + SIGINT, prompt},
        {"", SIGTERM, 128 + SIGTERM, prompt}};
    for (const auto& [text, signal, status, output] : typed) {
        auto arguments = encrypted;
        arguments.insert(arguments.end(), {"--output", "typed.rpm", "a.rpm"});
        const auto result = answer(arguments, text, signal);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.output, output);
    }
    EXPECT_EQ(readFile(scratch.path() / "typed.rpm"), readFile(scratch.path() / "signed.rpm"));
    const std::tuple<std::vector<std::string>, const char*, const char*> bad[] = {
        {encrypted, "", "secret.key: is encrypted, and there is no passphrase for it"},
        {encrypted, "ca/ca.pem", "secret.key: couldn't be decrypted with the passphrase"},
        {{"--developer-key", "secret.key"}, "passphrase", "secret.key: has no certificate"},
        {inOneFile, "ca/ca.pem", "all.p12: couldn't be decrypted with the passphrase"},
        {{"--developer-key", "ca/developer.key"}, "", "ca/developer.key: has no certificate"},
        {{"--developer-key", "cert.der"}, "", "cert.der: has no private key"},
        {{"--developer-key", "pkcs11:token=t?pin-value=1234"},
         "",
         "pkcs11:token=t: OpenSSL couldn't open it, or has"}};
    for (const auto& [arguments, passphraseFile, text] : bad) {
        const auto result = signWith(arguments, passphraseFile);
        EXPECT_EQ(result.status, 1) << text;
        EXPECT_THAT(result.output, HasSubstr(text));
    }
    EXPECT_FALSE(std::filesystem::exists(scratch.path() / "b.rpm"));
}

TEST_F(VendaraSign, AttachesSignaturesMadeByAToken) {
    const auto shell = [&](const std::string& script) {
        const auto result = run({"sh", "-ec", script},
                                {.environment = {{"SOFTHSM2_CONF", scratch.path() / "softhsm2.conf"},
                                                 {"PKCS11_MODULE_PATH", "/usr/lib/softhsm/libsofthsm2.so"}},
                                 .directory = scratch.path()});
        EXPECT_EQ(result.status, 0) << result.output;
    };
    const std::string key = "'pkcs11:object=me;type=private?pin-value=1234'";
    writeFile(scratch.path() / "softhsm2.conf",
              "directories.tokendir = " + (scratch.path() / "tokens").native() + "\n");
    writeFile(scratch.path() / "usage", "keyUsage=critical,digitalSignature\nextendedKeyUsage=" +
                                            std::string(PackageSignatures::developerUsage) + "\n");
    shell("mkdir tokens; softhsm2-util --init-token --free --label t --pin 1234 --so-pin 1234;"
          "pkcs11-tool --module $PKCS11_MODULE_PATH --token-label t --login --pin 1234 --keypairgen"
          " --key-type rsa:2048 --id 01 --label me;"
          "openssl req -new -engine pkcs11 -keyform engine -key " +
          key +
          " -subj /CN=Me -out me.csr;"
          "openssl x509 -req -in me.csr -CA ca/ca.pem -CAkey ca/ca.key -extfile usage -out me.pem");
    const auto answer = [&](const std::string& with, const std::string& from, const std::string& to) {
        shell("key=" + with + "; exec <" + from + " >" + to +
              "; eval \"$(sed -n '/^while read/,/^done/ { s/\\\\e$/\\\\/; p }' " MANUALS
              "/vendara-sign.1)\"");
        const auto answers = readFile(scratch.path() / to);
        return std::count(answers.begin(), answers.end(), '\n');
    };
    const auto token = "'-engine pkcs11 -keyform engine -inkey '" + key;
    const auto signWith = [&](std::vector<std::string> more) {
        more.insert(more.begin(), {"--developer-cert", "me.pem", "--trustlet", "/usr"});
        more.emplace_back("a.rpm");
        return sign(more);
    };
    const auto before = readFile(file);
    EXPECT_EQ(signWith({"--write-digest", "files"}).status, 0);
    EXPECT_EQ(answer(token, "files", "files.signed"), 2) << "a file's integrity and trustlet";
    EXPECT_EQ(signWith({"--attach", "files.signed", "--write-digest", "package"}).status, 0);
    EXPECT_THAT(signWith({"--attach", "files.signed"}).output,
                HasSubstr("a.rpm: digests without a signature: 1"));
    EXPECT_EQ(answer("'-inkey ca/client.key'", "package", "package.signed"), 1);
    EXPECT_THAT(signWith({"--attach", "files.signed", "--attach", "package.signed"}).output,
                HasSubstr("the signature was not made with the certificate's key"));
    answer(token, "package", "package.signed");
    EXPECT_EQ(
        signWith({"--attach", "files.signed", "--attach", "package.signed", "--write-digest", "rest"}).status,
        0);
    EXPECT_EQ(readFile(scratch.path() / "rest"), "");
    EXPECT_EQ(readFile(file), before);
    const auto result = signWith({"--attach", "files.signed", "--attach", "package.signed"});
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(sign({"--verify", "--authority", "ca/ca.pem", "a.rpm"}).status, 0);
}

TEST_F(VendaraSign, RefusesWithThePathAndChangesNothing) {
    ASSERT_EQ(sign(by("developer", "developer", "a.rpm")).status, 0);
    auto damaged = readFile(file);
    damaged[damaged.size() / 2] ^= 1;
    const auto plain = readFile(buildPackage(
        scratch.path() / "build", {.name = "b",
                                   .files = {{"/usr/share/applications/b.desktop",
                                              "[Desktop Entry]\nType=Application\nName=B\nExec=b\n"}}}));
    writeFile(scratch.path() / "damaged.rpm", damaged);
    writeFile(scratch.path() / "b.rpm", plain);
    writeFile(scratch.path() / "text.rpm", "text");
    writeFile(scratch.path() / "cut.rpm", plain.substr(0, plain.size() - 4));
    writeFile(scratch.path() / "twice.rpm", readFile(file) + "x");
    const auto topDirectory = "_topdir " + (scratch.path() / "build").native();
    const auto sourceDirectory = "_srcrpmdir " + scratch.path().native();
    writeFile(scratch.path() / "s.spec",
              "Name: s\nVersion: 1\nRelease: 1\nSummary: S\nLicense: None\n%description\nS.\n%files\n");
    ASSERT_EQ(run({"rpmbuild", "-bs", "--define", topDirectory, "--define", sourceDirectory, "s.spec"},
                  {.environment = {{"HOME", scratch.path()}}, .directory = scratch.path()})
                  .status,
              0);
    std::vector<CraftedEntry> links(1001);
    for (std::size_t place = 0; place < links.size(); ++place) {
        links[place] = {.directory = "/usr/", .name = std::to_string(10'000 + place), .inode = 1};
    }
    craftPackage(scratch.path() / "links.rpm", links);
    std::filesystem::rename(
        buildPackage(scratch.path() / "build",
                     {.name = "c", .files = {{"/usr/share/applications/c.desktop", "Name"}}}),
        scratch.path() / "manifest.rpm");
    Signing::signPackage({.package = scratch.path() / "manifest.rpm",
                          .output = scratch.path() / "signed.rpm",
                          .developer = Signing::loadIdentity(scratch.path() / "ca/developer.key",
                                                             scratch.path() / "ca/developer.pem"),
                          .allowInvalid = true});
    craftPackage(scratch.path() / "version.rpm", {}, {.version = "1/2"});
    const auto withOption = [](const std::string& name, const std::string& value) {
        return by("developer", "developer", "b.rpm", {name, value});
    };
    auto wrongKey = by("developer", "developer", "b.rpm");
    wrongKey[1] = "ca/client.key";
    auto noKey = by("developer", "developer", "b.rpm");
    noKey[1] = "ca/missing.key";
    ASSERT_EQ(mkfifo((scratch.path() / "fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink("nowhere", scratch.path() / "dangling");
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {withOption("--output", "fifo"), "b.rpm: fifo is not a regular file"},
        {withOption("--output", "dangling"), "b.rpm: dangling is a dangling symbolic link"},
        {by("developer", "developer", "a.rpm"), "a.rpm: the package already has a developer's signature"},
        {by("developer", "developer", "missing.rpm"), "couldn't sign missing.rpm: No such file"},
        {by("developer", "developer", "text.rpm"), "text.rpm: file is not an rpm package"},
        {by("developer", "developer", "cut.rpm"), "cut.rpm: the rpm package is truncated"},
        {by("developer", "developer", "s-1-1.src.rpm"), "s-1-1.src.rpm: the package is a source package"},
        {by("developer", "developer", "twice.rpm"), "twice.rpm: the rpm package has data after its end"},
        {by("developer", "developer", "links.rpm"), "links.rpm: the rpm package has a file with too many"},
        {by("developer", "developer", "manifest.rpm"), "manifest.rpm: couldn't parse the package's manifest"},
        {{"--verify", "--authority", "ca/ca.pem", "signed.rpm"},
         "signed.rpm: couldn't parse the package's manifest"},
        {by("client", "client", "version.rpm"), "version.rpm: couldn't parse package version: 1/2-1"},
        {by("developer", "client", "b.rpm"), "b.rpm: the certificate given for the developer is not a"},
        {by("client", "ca", "b.rpm"), "ca/ca.pem: certificate"},
        {by("client", "client", "damaged.rpm"), "damaged.rpm"},
        {withOption("--trustlet", "/usr/lib/ta"), "no file at or below /usr/lib/ta"},
        {wrongKey, "ca/client.key: does not belong to the certificate ca/developer.pem"},
        {noKey, "ca/missing.key: No such file"},
        {{"--make-test-ca", "ca"}, "ca/developer.key: File exists"},
        {{"--verify", "--authority", "ca/ca.pem", "b.rpm"}, "vendara-sign: b.rpm: not signed by a developer"},
        {{"--strip", "missing.rpm"}, "couldn't strip missing.rpm: No such file"},
        {{"--show", "/dev/null"}, "vendara-sign: /dev/null: not a regular file"},
        {{"--show", "text.rpm"}, "vendara-sign: text.rpm: file is not an rpm package"},
        {{"--verify", "--authority", "ca/ca.pem", "cut.rpm"}, "cut.rpm: the rpm package is truncated"},
        {{"--verify", "--authority", "ca/client.pem", "a.rpm"},
         "vendara-sign: a.rpm: certificate: unable to get local issuer certificate\n"}};
    const auto before = digestOfTree(scratch.path());
    for (const auto& [arguments, text] : cases) {
        const auto result = sign(arguments);
        EXPECT_EQ(result.status, 1) << text;
        EXPECT_THAT(result.output,
                    testing::AllOf(testing::ContainsRegex("(^|\n)vendara-sign: "), HasSubstr(text)));
    }
    // Files end after 1.5 kB: a larger one cannot be written, or is the end of the program.
    const auto withoutRoom = [&](const std::string& preparation, std::vector<std::string> arguments) {
        const auto script = preparation + "; ulimit -f 3; exec " VENDARA_SIGN " \"$@\"";
        arguments.insert(arguments.begin(), {"sh", "-c", script, "sh"});
        return run(arguments, {.directory = scratch.path()});
    };
    EXPECT_THAT(withoutRoom("trap '' XFSZ", {"--make-test-ca", "x/y"}).output,
                HasSubstr("x/y/developer.key: File too large"));
    // Where files have to have names, an interruption leaves one.
    if (const Common::UniqueFd nameless(open(scratch.path().c_str(), O_RDWR | O_TMPFILE, 0600)); nameless) {
        EXPECT_EQ(withoutRoom("ulimit -c 0", withOption("--output", "c.rpm")).status, 128 + SIGXFSZ);
    }
    EXPECT_EQ(digestOfTree(scratch.path()), before);
}

TEST_F(VendaraSign, MakesAuthoritiesWithKeysThatOnlyTheOwnerCanRead) {
    ASSERT_EQ(sign(by("developer", "system-developer", "a.rpm")).status, 0);
    EXPECT_THAT(sign({"--show", "a.rpm"}).output,
                HasSubstr("key: " + readFile(scratch.path() / "ca/system-developer-keyid")));
    for (const auto* name : {"ca", "developer", "client", "system-developer"}) {
        EXPECT_EQ(std::filesystem::status(scratch.path() / "ca" / (std::string(name) + ".key")).permissions(),
                  std::filesystem::perms{0600});
    }
    const auto plain = buildPackage(scratch.path() / "build", {.name = "b", .files = {{"/b", "b"}}});
    const auto evil = Signing::TestAuthority().issue(
        {.commonName = "evil\u009b\u202e", .extendedKeyUsage = PackageSignatures::clientUsage});
    writeFile(scratch.path() / "ca/evil.key", Signing::keyPem(evil));
    writeFile(scratch.path() / "ca/evil.pem", Signing::certificatePem(evil));
    ASSERT_EQ(sign(by("client", "evil", "a.rpm")).status, 0);
    EXPECT_THAT(sign({"--show", "a.rpm"}).output, HasSubstr("subject: CN=evil\\u{9b}\\u{202e}\n"));
    std::string refusal;
    const auto verifyWith = [&](const std::vector<std::string>& dates) {
        std::filesystem::remove_all(scratch.path() / "ca");
        auto arguments = dates;
        arguments.insert(arguments.end(), {"--make-test-ca", "ca"});
        EXPECT_EQ(sign(arguments).status, 0);
        auto signing = by("developer", "developer", plain, {"--output=b.rpm"});
        refusal = sign(signing).output;
        signing.emplace_back("--allow-expired");
        EXPECT_EQ(sign(signing).status, 0);
        return sign({"--verify", "--authority", "ca/ca.pem", "b.rpm"});
    };
    EXPECT_THAT(verifyWith({"--not-before", "2001-01-01", "--not-after", "2002-01-01"}).output,
                HasSubstr("certificate has expired"));
    EXPECT_THAT(refusal, HasSubstr("ca/developer.pem: certificate has expired on 2002-01-01"));
    EXPECT_THAT(verifyWith({"--not-before", "2090-01-01", "--not-after", "2091-01-01"}).output,
                HasSubstr("certificate is not yet valid"));
    EXPECT_THAT(refusal, HasSubstr("ca/developer.pem: certificate is not valid before 2090-01-01"));
    EXPECT_EQ(verifyWith({"--not-before", "2001-01-01"}).status, 0);
    EXPECT_EQ(refusal, "");
}

TEST_F(VendaraSign, DistinguishesWrongUsageFromFailure) {
    const std::vector<std::string> wrong[] = {
        {},
        {"a.rpm"},
        {"--no-such-option"},
        {"--show"},
        {"--verify", "a.rpm"},
        {"--verify", "--authority", "ca/none.pem", "a.rpm"},
        {"--show", "--verify", "--authority", "ca/ca.pem", "a.rpm"},
        {"--developer-cert", "ca/developer.pem", "a.rpm"},
        {"--strip"},
        {"--strip", "--show", "a.rpm"},
        {"--strip", "--json", "a.rpm"},
        {"--strip", "--replace", "a.rpm"},
        {"--strip", "--output", "b.rpm", "a.rpm", "c.rpm"},
        {"--strip", "--passphrase-file", "ca/ca.pem", "a.rpm"},
        {"--write-digest", "b", "a.rpm"},
        by("developer", "developer", "a.rpm", {"--write-digest", "b"}),
        by("developer", "developer", "a.rpm", {"--passphrase-file", "b"}),
        by("developer", "developer", "a.rpm", {"--passphrase-file", "empty"}),
        {"--client-cert", "ca/client.pem", "--attach", "b", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--attach", "ca/ca.pem", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--attach", "empty", "--trustlet", "/b", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--attach", "lowercase", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--write-digest", "b", "--output", "c.rpm", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--write-digest", "./a.rpm", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--write-digest", "ca/client.pem", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--attach", "empty", "--write-digest", "link", "a.rpm"},
        {"--client-cert", "ca/client.pem", "--write-digest", "absent/digests", "a.rpm"},
        by("developer", "developer", "a.rpm", {"--output", "ca/developer.key"}),
        {"--make-test-ca", "new", "a.rpm"},
        {"--make-test-ca", "new", "--not-after", "tomorrow"},
        {"--make-test-ca", "new", "--not-after", "2027-02-31"},
        {"--make-test-ca", "new", "--not-after", "2001-01-01"},
        {"--show", "a.rpm", "--output", "b.rpm"},
        {"--show", "a.rpm", "--allow-expired"},
        by("developer", "developer", "a.rpm", {"--output", ""})};
    writeFile(scratch.path() / "empty", "");
    writeFile(scratch.path() / "lowercase", "sha256 " + std::string(64, 'a') + " 00\n");
    std::filesystem::create_symlink("empty", scratch.path() / "link");
    const auto before = digestOfTree(scratch.path());
    for (const auto& arguments : wrong) {
        EXPECT_EQ(sign(arguments).status, 2) << testing::PrintToString(arguments);
    }
    EXPECT_EQ(sign({"--verify", "--json", "a.rpm"}).output,
              "{\"error\":{\"message\":\"--verify requires --authority\"}}\n");
    EXPECT_THAT(sign({"--client-cert", "ca/client.pem", "--attach", "absent", "a.rpm"}).output,
                testing::StartsWith("absent: No such file"));
    EXPECT_EQ(digestOfTree(scratch.path()), before);
    const auto help = sign({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, HasSubstr("--make-test-ca DIRECTORY"));
}

} // namespace
