-- What the handlers store holds before the rebuild: handlers of other kinds, which it must leave alone, and
-- the practice's autoresponder handler from an older release, switched off, which it must replace.
INSERT INTO handlers (queue, type, enabled, priority, name, address, executable, context, protected) VALUES
    (1, 4, 1, 100, 'archive', 'all', '/opt/qsx/handlers/hooks/archive', 'none', 1),
    (1, 1, 1, 20, 'virus-check', 'info@harbour-books.example', '/opt/qsx/handlers/hooks/virus-check', 'none', 1),
    (2, 1, 1, 50, 'spam-filter', 'anna.berg@harbour-books.example', '/opt/qsx/handlers/hooks/spam-filter', 'strict', 0),
    (2, 1, 0, 50, 'spam-filter', 'harbour-books.example', '/opt/qsx/handlers/hooks/spam-filter', 'none', 0),
    (2, 1, 0, 10, 'autoresponder', 'reception@clinic.example.com', '/opt/qsx/handlers/hooks/autoresponder-v1', 'none', 0),
    (2, 1, 1, 50, 'spam-filter', 'board@choir.example.net', '/opt/qsx/handlers/hooks/spam-filter', 'none', 0);
