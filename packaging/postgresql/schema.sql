-- The tables of a central log and the roles that may use them. Run once by an administrator of the database, in the
-- database and schema of the log:
--
--   psql -v ON_ERROR_STOP=1 -d audit -f schema.sql
--
-- then give the roles passwords or map them in pg_hba.conf. The daemon makes the same tables by itself where its role may
-- create them; with this script it need not.

BEGIN;

CREATE TABLE qel_items (
    key   bytea PRIMARY KEY,
    value bytea NOT NULL
);

CREATE TABLE qel_meta (
    name   text PRIMARY KEY,
    number bigint NOT NULL,
    value  bytea NOT NULL
);

INSERT INTO qel_meta (name, number, value) VALUES ('format', 1, '');

-- Entries are inserted and, on retransmission, replaced by themselves; the daemon never deletes.
CREATE ROLE qel_daemon LOGIN;
GRANT SELECT, INSERT, UPDATE ON qel_items, qel_meta TO qel_daemon;

-- 'qel-audit store prune' removes entries and leaves a trace of it.
CREATE ROLE qel_prune LOGIN;
GRANT SELECT, INSERT, UPDATE ON qel_items, qel_meta TO qel_prune;
GRANT DELETE ON qel_items TO qel_prune;

COMMIT;
