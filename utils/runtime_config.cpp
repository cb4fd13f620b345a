#include "utils/runtime_config.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "utils/conf_store.h"
#include "utils/log.h"

const char* const theVhcConfNames[VHC_CONF_COUNT] = {
    "_MIN_POSSIBLE_VHC_CONF_VAR_NAME",
    "CORVO_MAILNAMES_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "HTTPD_BIN",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "MYSQL_SOCKET",
    "SA_MAX_MAIL_SIZE",
    "SNI_SUPPORT",
    "PRODUCT_ROOT_D",
    "_MAX_POSSIBLE_VHC_CONF_VAR_NAME",
};

// sic
const char* const theVhcConfDefauls[VHC_CONF_COUNT] = {
    "_MIN_POSSIBLE_VHC_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/usr/sbin/rblsmtpd",
    "/usr/local/vhc/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/usr/share/awstats/wwwroot",
    "/usr/share/awstats/tools",
    "/usr/share/awstats/wwwroot/cgi-bin",
    "/etc/awstats",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/pgsql/data",
    "/usr/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/vhc/dumps",
    "/tmp",
    "/var/named/chroot",
    "/usr/sbin/httpd",
    "httpd",
    "/var/log/httpd",
    "/etc/httpd/conf.d",
    "/etc/httpd/conf",
    "/var/www/vhosts",
    "/var/lib/mysql/mysql.sock",
    "256000",
    "true",
    "/usr/local/vhc",
    "_MAX_POSSIBLE_VHC_CONF_VAR_VALUE",
};

namespace {

conf_store* theVhcConfHash = nullptr;         // null until the file has been read
const char* theVhcConfArray[VHC_CONF_COUNT];  // values found so far; they point into the store

struct StoreFreer {
    void operator()(conf_store* store) const noexcept { conf_free_r(store); }
};
using UniqueStore = std::unique_ptr<conf_store, StoreFreer>;

// Loads the file unless that is done. 0, or -1 after logging why.
int autoprepend() {
    if (theVhcConfHash != nullptr)
        return 0;
    UniqueStore store(static_cast<conf_store*>(std::calloc(1, sizeof(conf_store))));
    if (!store) {
        corvo::Log().line(LOG_ERR,
                          "Not enough memory to allocate Corvo runtime configuration structure");
        return -1;
    }
    if (conf_read_file_r(CONFIGURATION_FILE, store.get()) != 0)
        return -1;
    theVhcConfHash = store.release();
    return 0;
}

}  // namespace

const char* vhcConfGet(const char* name) noexcept {
    return autoprepend() == 0 ? conf_get_r(name, theVhcConfHash) : nullptr;
}

const char* vhcConfGetByIndex(int index) noexcept {
    const char*& cached = theVhcConfArray[index];
    if (cached == nullptr)
        cached = vhcConfGet(theVhcConfNames[index]);
    return cached;
}

const char* vhcConfGetDefaultByIndex(int index) noexcept {
    const char* value = vhcConfGetByIndex(index);
    return value != nullptr ? value : theVhcConfDefauls[index];
}

const char* vhcConfGetDefault(const char* name) noexcept {
    for (int index = 0; index < VHC_CONF_COUNT - 1; ++index) {
        if (std::strcmp(name, theVhcConfNames[index]) == 0)
            return vhcConfGetDefaultByIndex(index);
    }
    corvo::Log().line(LOG_ERR,
                      "variable '%s' was found neither in %s, nor in compile-time defaults", name,
                      CONFIGURATION_FILE);
    return nullptr;
}
