-- A small hosting server as its panel would describe it; loaded after panel_schema.sql by the demo
-- and by whole-run tests.

-- Three domains with mail service, one of them internationalised (bücher.example in its ASCII form),
-- and one without, which no mail restoration may touch.
INSERT INTO domains (id, name, displayName) VALUES
  (1, 'example.com', 'example.com'),
  (2, 'xn--bcher-kva.example', 'bücher.example'),
  (3, 'Shop.Example.net', 'shop.example.net'),
  (4, 'web-only.example', 'web-only.example');

INSERT INTO DomainServices (id, dom_id, type, status, parameters_id) VALUES
  (1, 1, 'mail', 0, 101),
  (2, 2, 'mail', 0, 102),
  (3, 3, 'mail', 0, 103),
  (4, 4, 'web', 0, 0);

-- Mail to unknown recipients: rejected, caught, bounced.
INSERT INTO Parameters (id, parameter, value) VALUES
  (101, 'nonexist_mail', 'reject'),
  (102, 'nonexist_mail', 'catch'),
  (102, 'catch_addr', 'kontakt@bücher.example'),
  (103, 'nonexist_mail', 'bounce'),
  (103, 'bounce_mess', 'There is nobody of that name in this shop.');

-- Default mailbox quotas: 100 MiB for example.com, 50 MiB for the shop, none for the bookshop.
INSERT INTO Subscriptions (id, object_id, object_type) VALUES
  (1, 1, 'domain'), (2, 2, 'domain'), (3, 3, 'domain');
INSERT INTO SubscriptionProperties (subscription_id, name, value) VALUES
  (1, 'limitsId', '201'), (3, 'limitsId', '203');
INSERT INTO Limits (id, limit_name, value) VALUES
  (201, 'mbox_quota', 104857600),
  (203, 'mbox_quota', 52428800);

INSERT INTO domain_aliases (dom_id, name, displayName, mail, status) VALUES
  (1, 'example.org', 'example.org', 'true', 0);

INSERT INTO mail (id, dom_id, mail_name, postbox, delivery, mail_group, mbox_quota) VALUES
  (11, 1, 'info',     'true',  'true',  'false', 10485760),  -- a quota of its own
  (12, 1, 'Office',   'true',  'true',  'false', -1),        -- the domain's default
  (13, 1, 'former',   'true',  'false', 'false', 0),         -- delivery off, no room at all
  (14, 1, 'team',     'true',  'true',  'true',  -1),        -- a mail group with its own mailbox
  (15, 1, 'partners', 'false', 'false', 'true',  -1),        -- a mail group that only forwards
  (21, 2, 'kontakt',  'true',  'true',  'false', -1),        -- no default either: unlimited
  (31, 3, 'orders',   'true',  'true',  'false', -1);        -- holds messages and attachments

INSERT INTO mail_aliases (mn_id, alias) VALUES
  (11, 'hello'), (11, 'contact'), (31, 'sales');

INSERT INTO mail_redir (mn_id, address) VALUES
  (14, 'info@example.com'),
  (14, 'office@example.com'),
  (15, 'anna@bücher.example'),
  (15, 'orders@shop.example.net'),
  (11, 'nobody@example.com');  -- left from the time when info was a group

INSERT INTO misc (param, val) VALUES
  ('reject_mail_when_overquota', 'true'),
  ('reject_mail_when_overquota_with_permfail', 'false'),
  ('allow_short_pop3_names', 'disabled');

INSERT INTO ServiceNodeConfiguration (serviceNodeId, section, name, value) VALUES
  (1, 'mailServer', 'relay', 'auth'),
  (1, 'mailServer', 'disable_smtp_auth', '0'),
  (1, 'mailServer', 'disable_pop_auth', '1'),
  (1, 'mailServer', 'ml_size', '10240'),
  (1, 'mailServer', 'message_submission', 'true');
