-- schema.sql - the tables quorda_crec reads and writes, and nothing else.
--
-- The real schema belongs to the web front end's installation; this file is
-- the subset the recorder expects, used by the private test cluster
-- (scripts/pg-private) and the demo. It must stay compatible with the
-- daemon's SQL:
--  * every value the daemon writes arrives as a quoted text literal
--    ('1699999999', '-1', ''), which the server casts to the column type;
--    a column that can receive '' is text, every other number column is
--    integer or bigint;
--  * ids come from sequences whose names the daemon passes to
--    currval() after an INSERT: a serial column "id" in table Calls gives
--    calls_id_seq (unquoted names fold to lower case);
--  * columns the daemon reads with the integer getter (Calls.id, accid,
--    category, processingstate, islocal and any Users field read as a
--    number) are 4-byte integers, because libdbi refuses a 4-byte read of
--    an 8-byte column. The 64-bit reads also accept 4-byte columns.

CREATE TABLE recorders (
    id serial PRIMARY KEY,
    recid text NOT NULL UNIQUE,
    name text NOT NULL DEFAULT '',
    rectype integer NOT NULL DEFAULT 0,
    options text NOT NULL DEFAULT ''
);

CREATE TABLE Contacts (
    id serial PRIMARY KEY,
    name text NOT NULL DEFAULT '',
    extra text NOT NULL DEFAULT '',
    parentcontact integer NOT NULL DEFAULT 0
);

-- One row per line (channel number) of a recorder; the contact gives a line
-- without a known number an identity.
CREATE TABLE Lines (
    id serial PRIMARY KEY,
    contactid integer,
    recorderid integer,
    linenr integer
);
CREATE INDEX lines_linenr_idx ON Lines (linenr, recorderid);

-- A number of a contact. deleted <> 0 hides the row from the look-ups by
-- number, but calls may still refer to it.
CREATE TABLE CallerIDs (
    id serial PRIMARY KEY,
    callerid text NOT NULL,
    callerid2 text NOT NULL DEFAULT '',
    islocal integer NOT NULL DEFAULT 0,
    contactid integer,
    deleted integer NOT NULL DEFAULT 0
);
CREATE INDEX callerids_callerid_idx ON CallerIDs (callerid);
CREATE INDEX callerids_contactid_idx ON CallerIDs (contactid);

-- Maps a contact onto another local identity (filled by the front end).
CREATE TABLE LocalIdMapping (
    srcid integer NOT NULL,
    dstid integer NOT NULL,
    updatetime bigint NOT NULL DEFAULT 0
);

CREATE TABLE Users (
    accid integer PRIMARY KEY,
    enabled integer NOT NULL DEFAULT 1,
    login text NOT NULL DEFAULT '',
    fullname text NOT NULL DEFAULT '',
    email text NOT NULL DEFAULT '',
    language text NOT NULL DEFAULT '',
    -- store on demand for the user's calls: 1 on demand, 2 always kept,
    -- anything else leaves the system-wide RecOnDemand
    rod integer NOT NULL DEFAULT 0
);

CREATE TABLE UserPhones (
    contactid integer NOT NULL,
    accid integer NOT NULL
);

-- The columns of a call. ActiveCalls holds the call while it is recorded
-- (the front end may edit notes, category and callextra meanwhile); Calls
-- gets the final row. Both have the same columns.
CREATE TABLE ActiveCalls (
    id serial PRIMARY KEY,
    startdate bigint NOT NULL DEFAULT 0,
    duration integer NOT NULL DEFAULT 0,
    filename text NOT NULL DEFAULT '',
    directory text NOT NULL DEFAULT '',
    isconnected integer NOT NULL DEFAULT 0,
    linenr integer,
    waittime integer NOT NULL DEFAULT 0,
    source integer NOT NULL DEFAULT 0,
    isarchived integer NOT NULL DEFAULT 0,
    encoding integer NOT NULL DEFAULT 0,
    encryption integer NOT NULL DEFAULT 0,
    flags integer NOT NULL DEFAULT 0,
    processingstate integer NOT NULL DEFAULT 0,
    lineid integer,
    recorderid integer,
    remoteid text NOT NULL DEFAULT '',
    remote text NOT NULL DEFAULT '',
    remotefull text NOT NULL DEFAULT '',
    remotecallerid integer,
    remotecontact integer,
    local text NOT NULL DEFAULT '',
    localfull text NOT NULL DEFAULT '',
    localcallerid integer,
    localcontact integer,
    connected text NOT NULL DEFAULT '',
    connectedcallerid integer,
    connectedcontact integer,
    direction integer NOT NULL DEFAULT 0,
    callextra text NOT NULL DEFAULT '',
    notes text,
    notes2 text,
    notes3 text,
    notes4 text,
    notes5 text,
    category integer NOT NULL DEFAULT 0
);

CREATE TABLE Calls (LIKE ActiveCalls INCLUDING DEFAULTS);
ALTER TABLE Calls ALTER COLUMN id DROP DEFAULT;
CREATE SEQUENCE calls_id_seq OWNED BY Calls.id;
ALTER TABLE Calls ALTER COLUMN id SET DEFAULT nextval('calls_id_seq');
ALTER TABLE Calls ADD PRIMARY KEY (id);
CREATE INDEX calls_localcontact_idx ON Calls (localcontact, startdate);
CREATE INDEX calls_localcallerid_idx ON Calls (localcallerid);
CREATE INDEX calls_remotecallerid_idx ON Calls (remotecallerid);

-- Settings of the recorder and the front end: one row per param, grouped
-- by part ("crec", "o", "s"). param is unique across all parts.
CREATE TABLE Configs (
    param text PRIMARY KEY,
    value text,
    part text NOT NULL DEFAULT ''
);
CREATE INDEX configs_part_idx ON Configs (part);

-- Maps a local number (theid) to a value and the column it goes to.
CREATE TABLE IdMap (
    theid text PRIMARY KEY,
    value text NOT NULL DEFAULT '',
    target text NOT NULL DEFAULT ''
);
