-- The tables of the panel that have to do with mail, as the panel's installer creates them.

CREATE TABLE domains (
  id int unsigned NOT NULL AUTO_INCREMENT,
  cr_date date DEFAULT NULL,
  name varchar(255) NOT NULL,
  displayName varchar(255) NOT NULL DEFAULT '',
  dns_zone_id int unsigned NOT NULL DEFAULT 0,
  status bigint unsigned NOT NULL DEFAULT 0,
  htype enum('none','vrt_hst','std_fwd','frm_fwd') NOT NULL DEFAULT 'none',
  real_size bigint unsigned DEFAULT 0,
  cl_id int unsigned NOT NULL DEFAULT 1,
  cert_rep_id int unsigned NOT NULL DEFAULT 0,
  limits_id int unsigned DEFAULT NULL,
  params_id int unsigned DEFAULT NULL,
  guid varchar(36) CHARACTER SET ascii NOT NULL DEFAULT '00000000-0000-0000-0000-000000000000',
  PRIMARY KEY (id),
  KEY name (name(64)),
  KEY displayName (displayName(64)),
  KEY cl_id (cl_id),
  KEY limits_id (limits_id)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE domain_aliases (
  id int unsigned NOT NULL AUTO_INCREMENT,
  name varchar(255) NOT NULL,
  displayName varchar(255) NOT NULL DEFAULT '',
  dom_id int unsigned NOT NULL,
  dns_zone_id int unsigned NOT NULL DEFAULT 0,
  status bigint NOT NULL DEFAULT 0,
  mail enum('false','true') NOT NULL DEFAULT 'false',
  web enum('false','true') NOT NULL DEFAULT 'false',
  dns enum('false','true') NOT NULL DEFAULT 'true',
  PRIMARY KEY (id),
  UNIQUE KEY name (name),
  KEY dom_id (dom_id)
) ENGINE=InnoDB AUTO_INCREMENT=11 DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

-- The services of a domain; status 0 is on, every bit of another value is a reason to be off.
CREATE TABLE DomainServices (
  id int unsigned NOT NULL AUTO_INCREMENT,
  dom_id int unsigned NOT NULL,
  type enum('web','mail','maillists','tomcat') NOT NULL,
  status bigint NOT NULL DEFAULT 0,
  parameters_id int unsigned NOT NULL DEFAULT 0,
  ipCollectionId int unsigned NOT NULL DEFAULT 0,
  PRIMARY KEY (id),
  UNIQUE KEY service (dom_id, type),
  KEY parameters_id (parameters_id)
) ENGINE=InnoDB AUTO_INCREMENT=101 DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE Parameters (
  id int unsigned NOT NULL,
  parameter varchar(255) NOT NULL,
  value mediumtext,
  PRIMARY KEY (id, parameter)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE Subscriptions (
  id int unsigned NOT NULL AUTO_INCREMENT,
  object_type enum('client','domain') NOT NULL,
  object_id int unsigned NOT NULL,
  locked enum('false','true') NOT NULL DEFAULT 'false',
  synchronized enum('false','true') NOT NULL DEFAULT 'true',
  PRIMARY KEY (id),
  UNIQUE KEY object (object_type, object_id)
) ENGINE=InnoDB AUTO_INCREMENT=301 DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE SubscriptionProperties (
  subscription_id int unsigned NOT NULL,
  name varchar(255) NOT NULL,
  value mediumtext,
  PRIMARY KEY (subscription_id, name)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE Limits (
  id int unsigned NOT NULL,
  limit_name varchar(255) NOT NULL,
  value bigint DEFAULT NULL,
  PRIMARY KEY (id, limit_name)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

-- Mail names. mbox_quota is in bytes; -1 stands for the domain's limit.
CREATE TABLE mail (
  id int unsigned NOT NULL AUTO_INCREMENT,
  mail_name varchar(245) NOT NULL,
  dom_id int unsigned NOT NULL,
  perm_id int unsigned NOT NULL DEFAULT 0,
  account_id int unsigned NOT NULL DEFAULT 0,
  postbox enum('false','true') NOT NULL DEFAULT 'false',
  delivery enum('false','true') NOT NULL DEFAULT 'true',
  mail_group enum('false','true') NOT NULL DEFAULT 'false',
  autoresponder enum('false','true') NOT NULL DEFAULT 'false',
  spamfilter enum('false','true') NOT NULL DEFAULT 'false',
  virusfilter enum('none','incoming','outgoing','any') NOT NULL DEFAULT 'none',
  mbox_quota bigint NOT NULL DEFAULT -1,
  description text,
  PRIMARY KEY (id),
  UNIQUE KEY address (mail_name, dom_id),
  KEY dom_id (dom_id),
  KEY account_id (account_id)
) ENGINE=InnoDB AUTO_INCREMENT=501 DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE mail_aliases (
  id int unsigned NOT NULL AUTO_INCREMENT,
  mn_id int unsigned NOT NULL,
  alias varchar(245) NOT NULL,
  PRIMARY KEY (id),
  KEY mn_id (mn_id),
  KEY alias (alias)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE mail_redir (
  id int unsigned NOT NULL AUTO_INCREMENT,
  mn_id int unsigned NOT NULL,
  address varchar(255) NOT NULL,
  PRIMARY KEY (id),
  KEY mn_id (mn_id),
  KEY address (address)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE certificates (
  id int unsigned NOT NULL AUTO_INCREMENT,
  name varchar(255) NOT NULL,
  csr text,
  pvt_key text,
  cert text,
  ca_cert text,
  cert_file varchar(255) DEFAULT NULL,
  ca_file varchar(255) DEFAULT NULL,
  PRIMARY KEY (id),
  KEY name (name)
) ENGINE=InnoDB AUTO_INCREMENT=701 DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

-- Clients that may relay: until lock_time after a POP login, or for ever (the white list) without.
CREATE TABLE smtp_poplocks (
  id int unsigned NOT NULL AUTO_INCREMENT,
  ip_address varchar(45) DEFAULT NULL,
  ip_mask varchar(45) DEFAULT NULL,
  lock_time datetime DEFAULT NULL,
  PRIMARY KEY (id),
  UNIQUE KEY network (ip_address, ip_mask),
  KEY lock_time (lock_time)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE badmailfrom (
  domain varchar(255) NOT NULL,
  PRIMARY KEY (domain)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE misc (
  param varchar(255) NOT NULL,
  val longtext,
  PRIMARY KEY (param)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

CREATE TABLE ServiceNodeConfiguration (
  serviceNodeId int unsigned NOT NULL,
  section varchar(255) NOT NULL,
  name varchar(255) NOT NULL,
  value mediumtext,
  PRIMARY KEY (serviceNodeId, section, name)
) ENGINE=InnoDB DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;
