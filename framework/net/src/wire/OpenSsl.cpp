#include "wire/OpenSsl.h"

#include <arpa/inet.h>
#include <openssl/err.h>

#include <chrono>
#include <ctime>

namespace qel::tls {
namespace {

std::string textOf(const ASN1_STRING* value) {
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, value);
    if (length < 0)
        return {};
    std::string text(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return text;
}

std::string entryOf(const X509_NAME* name, int nid) {
    const int index = X509_NAME_get_index_by_NID(name, nid, -1);
    if (index < 0)
        return {};
    return textOf(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
}

std::string describeName(const X509_NAME* name) {
    std::string text = "\"" + entryOf(name, NID_commonName) + "\"";
    const std::string unit = entryOf(name, NID_organizationalUnitName);
    if (!unit.empty())
        text += " of \"" + unit + "\"";
    return text;
}

std::string describeAddress(const ASN1_OCTET_STRING* address) {
    char text[INET6_ADDRSTRLEN] = "";
    const int family = ASN1_STRING_length(address) == 4 ? AF_INET : AF_INET6;
    if (ASN1_STRING_length(address) == 4 || ASN1_STRING_length(address) == 16)
        inet_ntop(family, ASN1_STRING_get0_data(address), text, sizeof text);
    return text;
}

}  // namespace

std::string takeError() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0)
        return "no further reason known";
    const char* reason = ERR_reason_error_string(code);
    return reason ? reason : "TLS library error " + std::to_string(code);
}

std::string subjectEntry(const X509* certificate, int nid) {
    return entryOf(X509_get_subject_name(certificate), nid);
}

std::string describe(const X509* certificate) {
    return describeName(X509_get_subject_name(certificate));
}

std::string describeIssuer(const X509* certificate) {
    return describeName(X509_get_issuer_name(certificate));
}

std::string describeHosts(const X509* certificate) {
    AlternativeNames names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::string text;
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        text += text.empty() ? "" : ", ";
        if (name->type == GEN_DNS)
            text += "DNS:" + textOf(name->d.dNSName);
        else if (name->type == GEN_IPADD)
            text += "IP:" + describeAddress(name->d.iPAddress);
        else
            text += "another kind of name";
    }
    return text.empty() ? "no host at all" : text;
}

bool hasHosts(const X509* certificate) {
    return X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1) >= 0;
}

long long toMicroseconds(const ASN1_TIME* time) {
    std::tm parts{};
    if (!time || ASN1_TIME_to_tm(time, &parts) != 1)
        return 0;
    return static_cast<long long>(timegm(&parts)) * 1'000'000;
}

std::string describeTime(long long microseconds) {
    const std::time_t seconds = microseconds / 1'000'000;
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

std::string describeTime(const ASN1_TIME* time) {
    return describeTime(toMicroseconds(time));
}

long long now() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace qel::tls
