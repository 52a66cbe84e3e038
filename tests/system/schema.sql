-- The panel's tables as far as the autoresponder reads and writes them, with the keys a panel has.
-- Columns that the autoresponder has a default for may be NULL. Each table counts its ids from another
-- number, so that no test takes the id of one for that of another unnoticed.
CREATE DATABASE qrx DEFAULT CHARACTER SET utf8mb3;
USE qrx;

CREATE TABLE clients (
  id int unsigned NOT NULL AUTO_INCREMENT,
  login varchar(255) DEFAULT NULL,
  pname varchar(255) DEFAULT NULL,
  email varchar(255) DEFAULT NULL,
  PRIMARY KEY (id)
) ENGINE=InnoDB AUTO_INCREMENT=1001;

CREATE TABLE domains (
  id int unsigned NOT NULL AUTO_INCREMENT,
  name varchar(255) NOT NULL,
  cl_id int unsigned DEFAULT NULL,
  PRIMARY KEY (id),
  UNIQUE KEY name (name),
  KEY cl_id (cl_id)
) ENGINE=InnoDB AUTO_INCREMENT=2001;

CREATE TABLE domainaliases (
  id int unsigned NOT NULL AUTO_INCREMENT,
  dom_id int unsigned NOT NULL,
  name varchar(255) NOT NULL,
  mail varchar(16) NOT NULL DEFAULT 'false',
  PRIMARY KEY (id),
  UNIQUE KEY name (name),
  KEY dom_id (dom_id)
) ENGINE=InnoDB AUTO_INCREMENT=3001;

CREATE TABLE mail (
  id int unsigned NOT NULL AUTO_INCREMENT,
  mail_name varchar(245) NOT NULL,
  dom_id int unsigned NOT NULL,
  PRIMARY KEY (id),
  UNIQUE KEY dom_id (dom_id, mail_name)
) ENGINE=InnoDB AUTO_INCREMENT=4001;

CREATE TABLE mail_aliases (
  id int unsigned NOT NULL AUTO_INCREMENT,
  mn_id int unsigned NOT NULL,
  alias varchar(245) NOT NULL,
  PRIMARY KEY (id),
  UNIQUE KEY mn_id (mn_id, alias),
  KEY alias (alias)
) ENGINE=InnoDB AUTO_INCREMENT=5001;

CREATE TABLE mail_resp (
  id int unsigned NOT NULL AUTO_INCREMENT,
  mn_id int unsigned NOT NULL,
  keystr varchar(255) DEFAULT NULL,
  key_where varchar(16) DEFAULT NULL,
  text mediumtext DEFAULT NULL,
  resp_on varchar(16) DEFAULT NULL,
  ans_freq varchar(32) DEFAULT NULL,
  mem_limit varchar(32) DEFAULT NULL,
  subject text DEFAULT NULL,
  reply_to varchar(255) DEFAULT NULL,
  charset varchar(255) DEFAULT NULL,
  content_type varchar(255) DEFAULT NULL,
  PRIMARY KEY (id),
  KEY mn_id (mn_id)
) ENGINE=InnoDB AUTO_INCREMENT=6001;

CREATE TABLE resp_forward (
  id int unsigned NOT NULL AUTO_INCREMENT,
  rn_id int unsigned NOT NULL,
  address varchar(255) DEFAULT NULL,
  PRIMARY KEY (id),
  KEY rn_id (rn_id)
) ENGINE=InnoDB AUTO_INCREMENT=7001;

CREATE TABLE resp_attach (
  id int unsigned NOT NULL AUTO_INCREMENT,
  rn_id int unsigned NOT NULL,
  filename varchar(255) DEFAULT NULL,
  PRIMARY KEY (id),
  KEY rn_id (rn_id)
) ENGINE=InnoDB AUTO_INCREMENT=8001;

-- Two runs at the same moment may both insert a sender's first row, so the pair isn't unique.
CREATE TABLE resp_freq (
  id int unsigned NOT NULL AUTO_INCREMENT,
  rn_id int unsigned NOT NULL,
  email varchar(255) NOT NULL,
  num int unsigned DEFAULT NULL,
  time_resp timestamp NOT NULL DEFAULT current_timestamp(),
  PRIMARY KEY (id),
  KEY sender (rn_id, email),
  KEY age (rn_id, time_resp)
) ENGINE=InnoDB AUTO_INCREMENT=9001;

CREATE TABLE misc (
  param varchar(255) NOT NULL,
  val mediumtext DEFAULT NULL,
  PRIMARY KEY (param)
) ENGINE=InnoDB;

CREATE TABLE dom_param (
  dom_id int unsigned NOT NULL,
  param varchar(255) NOT NULL,
  val mediumtext DEFAULT NULL,
  PRIMARY KEY (dom_id, param)
) ENGINE=InnoDB;

CREATE TABLE Parameters (
  id int unsigned NOT NULL,
  parameter varchar(255) NOT NULL,
  value text DEFAULT NULL,
  KEY id (id, parameter)
) ENGINE=InnoDB;
