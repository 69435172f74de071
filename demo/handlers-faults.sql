-- What may become of a handlers store: an autoresponder that is switched off, one of an older release, one that is
-- lost, one of a mailbox that no longer answers.
UPDATE handlers SET enabled = 0 WHERE name = 'autoresponder' AND address LIKE 'lektorat@%';
UPDATE handlers SET executable = executable || '-v1' WHERE name = 'autoresponder' AND address LIKE 'reception@clinic%';
DELETE FROM handlers WHERE name = 'autoresponder' AND address = 'info@books.example.net';
INSERT INTO handlers VALUES
    (2, 1, 1, 90, 'autoresponder', 'orders@harbour-books.example', '/opt/qsx/handlers/hooks/autoresponder', 'responder', 0);
