-- The handlers store as the panel makes it: empty.  (The constraint has always been spelt so.)
BEGIN TRANSACTION;
CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address));
CREATE INDEX idx1 ON handlers(queue, type, enabled, address);
CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);
CREATE INDEX idx3 ON handlers(name, queue, type, address);
CREATE INDEX idx4 ON handlers(name, queue, type);
COMMIT;
