-- The panel of a small hoster: a bookshop with two alias domains, a publisher with an internationalised
-- domain, a medical practice, a choir without automatic replies, and a parked domain without mail.

INSERT INTO domains (id, name) VALUES
    (1, 'harbour-books.example'),
    (2, 'bücher.example'),
    (3, 'clinic.example.com'),
    (4, 'choir.example.net'),
    (5, 'parked.test');

INSERT INTO DomainServices (dom_id, type) VALUES
    (1, 'web'), (1, 'mail'),
    (2, 'mail'),
    (3, 'web'), (3, 'mail'),
    (4, 'mail'),
    (5, 'web');

INSERT INTO domain_aliases (dom_id, name) VALUES
    (1, 'books.example.com'),
    (1, 'books.example.net'),
    (3, 'praxis.test'),
    (4, 'singers.test');

-- Names are kept as they were typed.  hello@parked.test is left from the days when that domain had mail.
INSERT INTO mail (id, dom_id, mail_name, autoresponder) VALUES
    (11, 1, 'info', 'true'),
    (12, 1, 'Anna.Berg', 'true'),
    (13, 1, 'orders', 'false'),
    (14, 1, 'postmaster', 'false'),
    (21, 2, 'Lektorat', 'true'),
    (22, 2, 'presse', 'false'),
    (31, 3, 'RECEPTION', 'true'),
    (32, 3, 'dr.okafor', 'true'),
    (33, 3, 'billing', 'false'),
    (41, 4, 'board', 'false'),
    (51, 5, 'hello', 'true');

INSERT INTO mail_resp (id, mn_id, resp_name, keystr, key_where, subject, reply_to, content_type, charset, text,
    resp_on, ans_freq, mem_limit) VALUES
    (101, 11, 'default', '', 'no', 'Re: <request_subject>', 'orders@harbour-books.example', 'text/plain', 'UTF-8',
        'Thank you for writing to Harbour Books.\nWe answer within two working days, tide permitting.\n',
        'true', 1, 10),
    (102, 12, 'default', '', 'no', 'Out of office', NULL, 'text/plain', 'UTF-8',
        'I''m on holiday until 3 August; "urgent" means info@harbour-books.example.\n',
        'true', 7, 100),
    -- Switched off at its mailbox.
    (103, 13, 'default', '', 'no', 'Order received', NULL, 'text/plain', 'UTF-8', 'Ships tomorrow.\n',
        'true', 1, 10),
    (104, 21, 'default', '', 'no', 'Ihr Manuskript – Eingangsbestätigung', NULL, 'text/plain', 'UTF-8',
        'Vielen Dank für Ihr Manuskript.\nDie Prüfung dauert 6–8 Wochen.\n',
        'true', 30, 100),
    (105, 31, 'default', '', 'no', 'Opening hours', 'reception@clinic.example.com', 'text/html', 'UTF-8',
        '<p>Monday to Friday, <b>8:00&ndash;17:00</b>.</p>\n<p>In an emergency call 112.</p>\n',
        'true', 1, 50),
    (106, 32, 'default', 'appointment', 'subj', 'Appointments', NULL, 'text/plain', 'ISO-8859-1',
        'Appointments are made by the reception only.\n',
        'true', 10, 100),
    -- Only the responder named default is ever used.
    (107, 32, 'conference', '', 'no', 'At a conference', NULL, 'text/plain', 'UTF-8', 'Back on Monday.\n',
        'false', 10, 100),
    (108, 51, 'default', '', 'no', 'Nobody home', NULL, 'text/plain', 'UTF-8', 'This domain is for sale.\n',
        'true', 10, 100);

-- A responder has room for one address: of two, the one that the server returns last is kept.
INSERT INTO resp_forward (rn_id, address) VALUES
    (101, 'archive@harbour-books.example'),
    (105, 'night-desk@clinic.example.com'),
    (105, 'on-call@clinic.example.com');

INSERT INTO resp_attach (rn_id, filename) VALUES
    (101, 'catalogue.pdf'),
    (105, 'directions.pdf'),
    (105, 'Opening hours.txt'),
    (107, 'slides.pdf');

INSERT INTO ServiceNodeConfiguration (name, value, serviceNodeId, section) VALUES
    ('auto_reply_headers',
        '{"Auto-Submitted": "auto-replied", "X-Auto-Response-Suppress": "All", "X-Priority": 5}',
        1, 'mailServer'),
    ('auto_reply_headers', '{"X-Wrong-Node": "yes"}', 2, 'mailServer'),
    ('message_size', '10485760', 1, 'mailServer');

INSERT INTO misc (param, val) VALUES
    ('version', '18.0.61'),
    ('admin_locale', 'en-US');
