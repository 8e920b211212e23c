-- A small demo platform: two resellers, their clients, users with extensions, and stored
-- recordings, voicemail and faxes. Loaded into the demo sandbox only (it empties these tables).
-- Ids have four digits: the refresh addresses its target by a four-digit id.

DELETE FROM extension_recording;
DELETE FROM extension_voicemail;
DELETE FROM extension_fax_center;
DELETE FROM extension;
DELETE FROM hs_account;
DELETE FROM client_prefs;
DELETE FROM client;

INSERT INTO client (id, parent_client_id, level, name) VALUES
    (1,    NULL, 0,   'Platform'),
    (1000, 1,    10,  'Acme Telecom'),
    (2000, 1,    10,  'Globex Voice'),
    (1100, 1000, 50,  'Acme Dental'),
    (1200, 1000, 50,  'Acme Law'),
    (2100, 2000, 50,  'Globex HQ'),
    (1101, 1100, 100, 'Ann Archer'),
    (1102, 1100, 100, 'Bob Baker'),
    (1201, 1200, 100, 'Carol Clark'),
    (2101, 2100, 100, 'Dave Dunn'),
    (2102, 2100, 100, 'Erin Estes');

INSERT INTO hs_account (userID, username) VALUES
    (1,    'platform'),
    (1000, 'acme'),
    (2000, 'globex'),
    (1100, 'acme-dental'),
    (1200, 'acme-law'),
    (2100, 'globex-hq'),
    (1101, 'ann'),
    (1102, 'bob'),
    (1201, 'carol'),
    (2101, 'dave'),
    (2102, 'erin');

-- Limits in KiB, as the telephony side checks them.
INSERT INTO client_prefs (client_id, param, value) VALUES
    (1000, 'max_record', '1048576'),
    (1100, 'max_voice',  '10240'),
    (1101, 'max_sound',  '2048');

INSERT INTO extension (id, client_id, number, extended_number) VALUES
    (1, 1101, '201', '1100*201'),
    (2, 1101, '202', '1100*202'),
    (3, 1102, '203', '1100*203'),
    (4, 1201, '301', '1200*301'),
    (5, 2101, '401', '2100*401'),
    (6, 2102, '402', '2100*402');

INSERT INTO extension_recording (extension_id, filesize, filename) VALUES
    (1, 524288,  'call-0001.wav'),
    (1, 262144,  'call-0002.wav'),
    (3, 1048576, 'call-0003.wav'),
    (5, 3145728, 'call-0004.wav'),
    (6, 65536,   'call-0005.wav');

INSERT INTO extension_voicemail (extension_id, filesize, filename, folder) VALUES
    (2, 98304,  'msg0000.wav', 'INBOX'),
    (2, 16384,  'msg0001.wav', 'Old'),
    (4, 204800, 'msg0000.wav', 'INBOX');

INSERT INTO extension_fax_center (extension_id, filesize, file_name, folder) VALUES
    (1, 40960,  'fax-0001.tif', 'in'),
    (4, 122880, 'fax-0002.tif', 'out'),
    (5, 8192,   'fax-0003.tif', 'in');
