// Records of the MFA database layer, their destructors and the escaping
// helper shared by every qn_db_ operation.
//
// Records come from the checked heap; whoever receives one from a ...Get...
// operation owns it and releases it with the matching destructor. Every
// destructor accepts null.
#ifndef MFA_DB_DBCOMMON_H
#define MFA_DB_DBCOMMON_H

#include <libpq-fe.h>

#include "mfadata/dbctx.h"

#ifdef __cplusplus
extern "C" {
#endif

// A factor definition (tags/isactive hold settings/isenabled there) or a
// user's link to a factor.
typedef struct MFAAdminFactorData {
  int factorid;
  int userfactorid; // 0 in factor definitions
  char *factorname;
  char *factornote;
  union {
    char *factortags;     // user-factor link: the tags' JSON text
    char *factorsettings; // factor definition: the settings' JSON text
  };
  union {
    int isactive;
    int isenabled;
  };
} MFAAdminFactorData;

// A policy by id, or one of a user's policies (then userpolicyid is set).
typedef struct MFAAdminPolicyData {
  int policyid;
  int userpolicyid;
  char *policyname;
  char *policynote;
  int ctcreuse;
  int ctctimeout;
  int numFactors;
  MFAAdminFactorData **factors;
} MFAAdminPolicyData;

// A policy by name: the definition read and written by the by-name family.
typedef struct userPolicyData {
  char *policyname;
  char *policynote;
  int ctctimeout;
  int ctcreuse;
  int numFactors;
  char **factorNames;
  char **factorNotes; // parallel to factorNames; filled by qn_db_policyGetAll only
} userPolicyData;

// One profile of a user on an agent host.
typedef struct clientUserProfile {
  int userorlinclientid;
  char *remoteuserid;
  int remoteuserstatus;
} clientUserProfile;

// The profiles of one user on one agent host. name is the host name when
// grouped per user and the user's uid when grouped per host.
typedef struct orlinClientUserData {
  int userid;
  int clientid;
  char *name;
  int numProfiles;
  clientUserProfile **profiles;
} orlinClientUserData;

typedef struct orlinClientData {
  int ClientId;
  char *ClientHostname;
  char *ClientDescription;
  int clientstatus;
  int numUsers;
  orlinClientUserData **users;
} orlinClientData;

typedef struct clientData {
  int pavoclientsid;
  char *ClientId;
  char *ClientSecret;
  char *ClientDescription;
} clientData;

typedef struct adminData {
  char *unixuid;
  char *name;
  int adminrights;
  int suspended;
} adminData;

typedef struct userData {
  int userid;
  char *unixuid;
  char *name;
  int passwordfallback;
  int hasPassword;
  int numPolicies;
  MFAAdminPolicyData **policies; // by-id read; null in the by-uid read
  int numFactors;
  int ctcfailurecount;
  int suspended;
  MFAAdminFactorData **factors;
  int numOrlinClients;
  orlinClientUserData **orlinClients;
  char **policyNames; // by-uid read; numPolicies entries
} userData;

// Stores through escaped an escaped copy of source for use between single
// quotes in SQL text, and through size the allocation size to free it with
// (safeFree). A null source or an escaping error stores null and 0; a null
// out-argument makes it do nothing.
void quotedDuplicateString(PGconn *connection, const char *source, char **escaped, int *size);

void destroyUserData(userData *user);
void destroyMFAAdminFactorData(MFAAdminFactorData *factor);
// Twin of destroyMFAAdminFactorData for the factors inside a policy record;
// it releases the note and the third string without their terminator byte.
void destroyFactorData(MFAAdminFactorData *factor);
void destroyMFAAdminPolicyData(MFAAdminPolicyData *policy);
void qn_db_destroyAdminFactorDef(MFAAdminFactorData *factor);
void destroyAdminData(adminData *admin);
void destroyUserPolicyData(userPolicyData *policy);
void destroyClientData(clientData *client);
void destroyOrlinClientData(orlinClientData *client);
void destroyOrlinClientUserData(orlinClientUserData *connection);
void destroyClientUserProfile(clientUserProfile *profile);
// Same as destroyOrlinClientUserData, under the name the agent side uses.
void destroyClientUserData(orlinClientUserData *connection);

#ifdef __cplusplus
}
#endif

#endif
