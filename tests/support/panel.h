// A panel database for a test, in the private server of the test run.

#pragma once

#include <string>
#include <vector>

namespace corvo::test {

/// Creates a database with the tables of panel_schema.sql under a name of its own, writes the
/// sandbox's /etc/vhc files so that the program reaches it, and drops it in the destructor.
/// Needs a sandbox in its first state.
class PanelDatabase {
public:
    PanelDatabase();
    ~PanelDatabase();
    PanelDatabase(const PanelDatabase&) = delete;
    PanelDatabase& operator=(const PanelDatabase&) = delete;

    class Domain;
    class Mailname;

    /// Adds a domain with mail service switched on ("reject" for unknown recipients).
    Domain domain(const std::string& name);

    /// Sets a row of misc (param/val) or of the mail server's configuration.
    void misc(const std::string& param, const std::string& value);
    void mailServer(const std::string& name, const std::string& value);

    /// Runs statements as the server's administrator, with this database as the current one.
    void execute(const std::string& sql);
    /// The rows of a query: columns joined by "|", NULL as "NULL".
    std::vector<std::string> query(const std::string& sql);

    const std::string& name() const { return name_; }
    /// The login that /etc/vhc names; it may do anything within this database.
    const std::string& user() const { return user_; }

    /// The socket of the test run's server; CORVO_PANEL_SOCKET in the environment names another.
    /// Throws when there is no server, and skips the test when there can be none.
    static std::string socket();

    /// The socket as /etc/vhc/vhc.conf has it: a link to the server's. Without it, every further
    /// connection with the panel's credentials fails.
    static inline const std::string SOCKET_LINK = "/etc/vhc/mysql.sock";

private:
    std::string name_;
    std::string user_;
};

class PanelDatabase::Mailname {
public:
    Mailname& postbox(bool on = true);
    Mailname& delivery(bool on = true);
    Mailname& quota(long long bytes);  // -1: the domain's default
    Mailname& group(bool on = true);   // a mail group
    Mailname& alias(const std::string& name);
    Mailname& redirect(const std::string& address);
    int id() const { return id_; }

private:
    friend class PanelDatabase::Domain;
    Mailname(PanelDatabase& panel, int id) : panel_(panel), id_(id) {}
    PanelDatabase& panel_;
    int id_;
};

class PanelDatabase::Domain {
public:
    Domain& defaultQuota(long long bytes);
    Domain& status(long long value);  // of the mail service; 0 is on
    Domain& parameter(const std::string& name, const std::string& value);  // of the mail service
    Domain& alias(const std::string& name, bool mail = true, long long status = 0);
    /// Adds a mail name with a postbox and delivery, quota -1, no group.
    Mailname mailname(const std::string& name);
    int id() const { return id_; }

private:
    friend class PanelDatabase;
    Domain(PanelDatabase& panel, int id) : panel_(panel), id_(id) {}
    PanelDatabase& panel_;
    int id_;
};

}  // namespace corvo::test
