-- The mail handlers database as the installer makes it, with a handler that is none of our business.
CREATE TABLE handlers (
  queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER,
  name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL,
  executable VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL,
  protected BOOLEAN NOT NULL default 0,
  CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address)
);
CREATE INDEX idx1 ON handlers(queue, type, enabled, address);
CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);
CREATE INDEX idx3 ON handlers(name, queue, type, address);
CREATE INDEX idx4 ON handlers(name, queue, type);
INSERT INTO handlers VALUES
  (1, 5, 1, 10, 'spam', 'info@example.com', '/usr/local/vhc/handlers/hooks/spam', 'none', 0);
