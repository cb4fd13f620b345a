// The single checks, in the order in which they are made. Each gives at least one result for each
// thing that it looks at; see checkMachine for what holds for all.

#pragma once

#include <memory>
#include <string>

#include "audit/check/check.h"
#include "lib/db++/connection.h"

namespace corvo::audit {

/// The account that owns the mail, and its group.
void checkAccount(const CheckSink& sink);

/// The configuration file, and what it says of the mail names root.
void checkConfiguration(const CheckSink& sink);

/// What is said of this mail names root, whether it is there or not.
void checkRootSetting(const CheckSink& sink, const std::string& root);

/// The files with the panel database's credentials, and the server's socket. False where they
/// cannot be read: who connects all the same is told so on standard error, and takes others.
bool checkCredentials(const CheckSink& sink);

/// The socket of a database server on this machine.
void checkSocket(const CheckSink& sink, const std::string& path);

/// Connects, where that may be tried; null after a problem.
std::unique_ptr<mysql::Connection> checkConnection(const CheckSink& sink, bool mayTry);

/// The server, the tables and columns that are read, and how many mail domains and mail names there
/// are.
void checkPanel(const CheckSink& sink, mysql::Connection& panel);

/// The delivery agent and the default delivery line.
void checkDelivery(const CheckSink& sink);

/// The folder of the lock files.
void checkLockFolder(const CheckSink& sink);

/// The mail names root: there, mounted, reached by the account. Without a panel (null) it is not
/// asked whether there should be something in it.
void checkMailRoot(const CheckSink& sink, mysql::Connection* panel);

/// Room for the homes that are missing; without a panel (null) for work alone.
void checkRoom(const CheckSink& sink, mysql::Connection* panel);

/// Both SQLite databases.
void checkLocalDatabases(const CheckSink& sink);

/// What the kernel and its file systems in user space allow the account.
void checkProtection(const CheckSink& sink);

/// Runs and deliveries under way.
void checkProcesses(const CheckSink& sink);

/// Rows of the panel that break a run or escape it.
void checkPanelRows(const CheckSink& sink, mysql::Connection& panel);

}  // namespace corvo::audit
