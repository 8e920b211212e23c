-- Platform tables read by spoolcap and the platform modules.
-- Indexes follow the columns the statements filter and join on.

CREATE TABLE IF NOT EXISTS timezone (
    id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    name VARCHAR(64) NOT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- The account tree: level 0 root, 10 reseller, 50 client, 100 user (owner of extensions).
CREATE TABLE IF NOT EXISTS client (
    id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    parent_client_id INT NULL,
    level INT NULL,
    name VARCHAR(128) NULL,
    status INT NULL DEFAULT 1,
    phonestatus INT NULL DEFAULT 0,
    timezone_id INT NULL,
    KEY idx_client_parent (parent_client_id),
    KEY idx_client_level (level)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS hs_account (
    userID INT NOT NULL PRIMARY KEY,
    username VARCHAR(64) NULL,
    KEY idx_hs_account_username (username)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS client_prefs (
    id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    client_id INT NOT NULL,
    param VARCHAR(64) NOT NULL,
    value VARCHAR(255) NULL,
    UNIQUE KEY idx_client_prefs (client_id, param)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS extension (
    id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    client_id INT NOT NULL,
    number VARCHAR(32) NOT NULL,
    extended_number VARCHAR(64) NOT NULL,
    alias VARCHAR(64) NULL,
    type VARCHAR(32) NULL DEFAULT 'term',
    KEY idx_extension_client (client_id),
    KEY idx_extension_number (number),
    UNIQUE KEY idx_extension_extended (extended_number),
    KEY idx_extension_alias (alias)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS extension_prefs (
    id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    extension_id INT NOT NULL,
    param VARCHAR(64) NOT NULL,
    value VARCHAR(255) NULL,
    UNIQUE KEY idx_extension_prefs (extension_id, param)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- System-wide parameters (ext_length, ext_separator, ...).
CREATE TABLE IF NOT EXISTS misc (
    param VARCHAR(64) NOT NULL PRIMARY KEY,
    value VARCHAR(255) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS codec (
    id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    uname VARCHAR(32) NOT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS extension_codec_rel (
    extension_id INT NOT NULL,
    codec_id INT NOT NULL,
    priority INT NOT NULL DEFAULT 0,
    PRIMARY KEY (extension_id, codec_id)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS ser_subscriber (
    id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    username VARCHAR(64) NOT NULL,
    can_register VARCHAR(8) NULL,
    UNIQUE KEY idx_ser_subscriber_username (username)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Stored media files. filesize is in bytes; se/az tell where the file is stored (engine, location).
CREATE TABLE IF NOT EXISTS extension_recording (
    id BIGINT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
    rid INT NULL,
    extension_id INT NOT NULL,
    filesize BIGINT NOT NULL DEFAULT 0,
    ext VARCHAR(16) NOT NULL DEFAULT 'wav',
    filename VARCHAR(255) NULL,
    folder VARCHAR(64) NULL,
    callid VARCHAR(128) NULL,
    flow VARCHAR(16) NULL,
    se VARCHAR(16) NULL,
    az VARCHAR(255) NULL,
    created TIMESTAMP NOT NULL DEFAULT CURRENT_TIMESTAMP,
    KEY idx_recording_extension (extension_id),
    KEY idx_recording_call (callid, flow)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS extension_voicemail (
    id BIGINT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
    extension_id INT NOT NULL,
    filesize BIGINT NOT NULL DEFAULT 0,
    ext VARCHAR(16) NOT NULL DEFAULT 'wav',
    filename VARCHAR(255) NULL,
    folder VARCHAR(64) NULL,
    se VARCHAR(16) NULL,
    az VARCHAR(255) NULL,
    created TIMESTAMP NOT NULL DEFAULT CURRENT_TIMESTAMP,
    KEY idx_voicemail_extension (extension_id, folder)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS extension_fax_center (
    id BIGINT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
    extension_id INT NOT NULL,
    filesize BIGINT NOT NULL DEFAULT 0,
    file_name VARCHAR(255) NULL,
    folder VARCHAR(64) NULL,
    se VARCHAR(16) NULL,
    az VARCHAR(255) NULL,
    created TIMESTAMP NOT NULL DEFAULT CURRENT_TIMESTAMP,
    KEY idx_fax_extension (extension_id, folder)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Call screening of an extension: one row (behaviour, allow_list, deny_list); the lists are
-- comma-separated numbers. No row when the extension is unknown.
DROP PROCEDURE IF EXISTS get_screening_prefs;
DELIMITER //
CREATE PROCEDURE get_screening_prefs(IN full_number VARCHAR(64))
BEGIN
    SELECT
        (SELECT p.value FROM extension_prefs p
          WHERE p.extension_id = e.id AND p.param = 'screening_behaviour') AS behaviour,
        (SELECT p.value FROM extension_prefs p
          WHERE p.extension_id = e.id AND p.param = 'screening_allow') AS allow_list,
        (SELECT p.value FROM extension_prefs p
          WHERE p.extension_id = e.id AND p.param = 'screening_deny') AS deny_list
    FROM extension e
    WHERE e.extended_number = full_number;
END //
DELIMITER ;
