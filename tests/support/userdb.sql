-- The quota user database as the installer makes it.
CREATE TABLE mailbox_quota (
  domain_name TEXT NOT NULL,
  mailbox_name TEXT NOT NULL,
  quota TEXT NOT NULL,
  PRIMARY KEY (domain_name, mailbox_name)
);
