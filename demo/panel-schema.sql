-- The tables of the panel's database that the rebuild reads, with the columns that it reads.

CREATE TABLE domains (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT,
    name VARCHAR(255) NOT NULL,
    PRIMARY KEY (id),
    UNIQUE KEY (name)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE DomainServices (
    dom_id INT UNSIGNED NOT NULL,
    type VARCHAR(32) NOT NULL,
    PRIMARY KEY (dom_id, type)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE mail (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT,
    dom_id INT UNSIGNED NOT NULL,
    mail_name VARCHAR(245) NOT NULL,
    autoresponder ENUM('false', 'true') NOT NULL DEFAULT 'false',
    PRIMARY KEY (id),
    UNIQUE KEY (dom_id, mail_name)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE mail_resp (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT,
    mn_id INT UNSIGNED NOT NULL,
    resp_name VARCHAR(255) NOT NULL,
    keystr VARCHAR(255) DEFAULT NULL,
    key_where ENUM('no', 'subj', 'body') NOT NULL DEFAULT 'no',
    subject TEXT,
    reply_to VARCHAR(255) DEFAULT NULL,
    content_type VARCHAR(255) DEFAULT 'text/plain',
    charset VARCHAR(64) DEFAULT 'UTF-8',
    text LONGTEXT,
    resp_on ENUM('false', 'true') NOT NULL DEFAULT 'false',
    ans_freq INT NOT NULL DEFAULT 10,
    mem_limit INT NOT NULL DEFAULT 100,
    PRIMARY KEY (id),
    UNIQUE KEY (mn_id, resp_name)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE resp_forward (
    rn_id INT UNSIGNED NOT NULL,
    address VARCHAR(255) NOT NULL,
    PRIMARY KEY (rn_id, address)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE resp_attach (
    rn_id INT UNSIGNED NOT NULL,
    filename VARCHAR(255) NOT NULL,
    PRIMARY KEY (rn_id, filename)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE domain_aliases (
    dom_id INT UNSIGNED NOT NULL,
    name VARCHAR(255) NOT NULL,
    PRIMARY KEY (name),
    KEY (dom_id)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE ServiceNodeConfiguration (
    name VARCHAR(255) NOT NULL,
    value TEXT,
    serviceNodeId INT UNSIGNED NOT NULL,
    section VARCHAR(255) NOT NULL,
    PRIMARY KEY (serviceNodeId, section, name)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE misc (
    param VARCHAR(255) NOT NULL,
    val TEXT,
    PRIMARY KEY (param)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
